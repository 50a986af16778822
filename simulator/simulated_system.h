#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/system_services.h"
#include "simulator/timeline.h"

namespace Vx::Simulator {

// API sets, first-run setup, triggers and the lockdown policy. Initially, setup has finished, all
// API sets are present, all triggers can be raised and the lockdown mode is 0. Thread-safe.
class SimulatedSystem final : public Platform::ApiSets,
                              public Platform::Oobe,
                              public Platform::SystemTriggers,
                              public Platform::LockdownPolicy {
 public:
  SimulatedSystem(Timeline& log, const VirtualClock& clockOf) : timeline(log), clock(clockOf) {}

  // Ends first-run setup `elapsed` after the clock was constructed.
  void EndOobeAt(VirtualClock::Duration elapsed);

  // Sets whether Query succeeds. If it fails, the rest of its result is meaningless.
  void SetOobeKnown(bool known);

  void RemoveApiSet(const std::wstring& name);

  // Sets the status that every trigger returns.
  void SetTriggerStatus(std::uint32_t status);

  // Sets the mode that the policy library reports, if any, and the HRESULT that it returns.
  void SetLockdownMode(std::optional<std::int32_t> mode, std::int32_t result = 0);

  // Makes loading the policy library fail from now on, or succeed again if `error` is zero.
  void FailLockdownLibrary(Platform::ErrorCode error);

  bool IsPresent(const std::wstring& name) const override;
  State Query() const override;
  std::uint32_t Raise(const std::wstring& triggerId) override;
  Platform::Result<std::int32_t> QueryMode(const std::wstring& fullPath,
                                           std::int32_t& mode) const override;

 private:
  Timeline& timeline;
  const VirtualClock& clock;
  mutable std::mutex mutex;  // guards everything below
  VirtualClock::Duration oobeEnds{};
  bool oobeKnown = true;
  std::set<std::wstring> missingApiSets;
  std::uint32_t triggerStatus = 0;
  std::optional<std::int32_t> lockdownMode = 0;
  std::int32_t lockdownResult = 0;
  Platform::ErrorCode libraryError = 0;
};

}  // namespace Vx::Simulator
