#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "service/service_fixture.h"
#include "support/machine_test.h"

namespace Vx::Tests {

constexpr std::uint64_t kPowerOn = 133'655'000'000'000'000;  // 2024-07-15T03:33:20Z as a FILETIME

// A service on a machine in memory with ann signed in at the console.
class SimulatedServiceTest : public MachineTest {
 protected:
  SimulatedServiceTest() { machine.clock.SetUtcFileTime(kPowerOn); }
  ~SimulatedServiceTest() override {
    host.End();
    machine.clock.Advance(
        std::chrono::hours(2));  // destroying it does not end its delayed launches
  }

  // Installs an app of the maker with this name for ann.
  void InstallApp(const std::wstring& name) {
    const std::wstring publisher = L"r4x2m8kq7tn3b";
    machine.packages.Install({.familyName = name + L"_" + publisher,
                              .fullName = name + L"_2.0.0.0_x64__" + publisher,
                              .folder = {}},
                             L"ann");
  }

  // Returns the command lines of the programs that were started.
  std::vector<std::wstring> Started() const {
    std::vector<std::wstring> lines;
    for (const auto& process : machine.processes.Started()) {
      lines.push_back(process.start.commandLine);
    }
    return lines;
  }

  ServiceFixture host;
};

}  // namespace Vx::Tests
