#pragma once

#include <filesystem>
#include <functional>
#include <memory>

#include "hosting/loaded_module.h"
#include "vxhost/common/console.h"
#include "vxhost/common/module_options.h"
#include "vxhost/log/play_record.h"

namespace Vx::Simulator {
class SimulatedMachine;
}  // namespace Vx::Simulator

namespace Vx::Hosting::Tool {

// Replaces the machine's store with one in a temporary folder, which the destructor removes.
class PrivateStore {
 public:
  PrivateStore();
  PrivateStore(const PrivateStore&) = delete;
  PrivateStore& operator=(const PrivateStore&) = delete;
  ~PrivateStore();

 private:
  std::filesystem::path folder;
};

// A service and the record of what happens.
struct Harness {
  Console& console;
  PlayRecord record;
  Simulator::SimulatedMachine* machine = nullptr;  // null for the real one
  std::function<ServiceSession()> newService = {};
  std::function<void()> showRepeated = [] {};  // prints repeat counts not yet shown
  ServiceSession session{nullptr};
};

// Returns the service that a subcommand uses, with its environment: the real module on this machine
// or, with --simulate, the service linked into this program on a simulated machine. Calls `prepare`
// after creating the machine and before creating the service. Throws std::runtime_error on failure.
std::shared_ptr<Harness> MakeHarness(
    const ModuleOptions& options, Console& console, const std::function<void()>& prepare = [] {});

}  // namespace Vx::Hosting::Tool
