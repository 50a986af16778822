#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/processes.h"
#include "simulator/simulated_users.h"
#include "simulator/timeline.h"

namespace Vx::Simulator {

struct SimulatedProcess {
  std::uint32_t id = 0;
  std::uint32_t session = 0;
  std::wstring user;  // "SYSTEM" for the service
  Platform::ProcessStart start;
};

// The processes of a simulated machine. Starts are only recorded, so the programs need not exist.
// The console session has a logon process. Thread-safe.
class SimulatedProcesses final : public Platform::Processes {
 public:
  SimulatedProcesses(Timeline& log, const SimulatedUsers& machineUsers)
      : timeline(log), users(machineUsers) {}

  // Returns all successful starts in order, including those of processes that have ended.
  std::vector<SimulatedProcess> Started() const;

  void End(std::uint32_t id);

  // Makes every start of `application` fail from now on, or succeed again if `error` is zero.
  void Refuse(const std::wstring& application, Platform::ErrorCode error);

  Platform::Result<std::uint32_t> Start(Platform::RawHandle token,
                                        const Platform::ProcessStart& start) override;
  std::vector<std::uint32_t> Ids(std::size_t limit) const override;
  std::optional<std::wstring> ImagePath(std::uint32_t id) const override;
  std::optional<std::uint32_t> Session(std::uint32_t id) const override;
  Platform::Result<Platform::UniqueHandle> PrimaryToken(std::uint32_t id) const override;

 private:
  Timeline& timeline;
  const SimulatedUsers& users;
  mutable std::mutex mutex;  // guards everything below
  std::vector<SimulatedProcess> started;
  std::map<std::uint32_t, SimulatedProcess> running;
  std::map<std::wstring, Platform::ErrorCode> refused;
  std::uint32_t lastId = 1000;
};

}  // namespace Vx::Simulator
