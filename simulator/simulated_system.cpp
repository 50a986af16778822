#include "simulator/simulated_system.h"

namespace Vx::Simulator {

void SimulatedSystem::EndOobeAt(VirtualClock::Duration elapsed) {
  const std::lock_guard guard(mutex);
  oobeEnds = elapsed;
}

void SimulatedSystem::SetOobeKnown(bool known) {
  const std::lock_guard guard(mutex);
  oobeKnown = known;
}

void SimulatedSystem::RemoveApiSet(const std::wstring& name) {
  const std::lock_guard guard(mutex);
  missingApiSets.insert(name);
}

void SimulatedSystem::SetTriggerStatus(std::uint32_t status) {
  const std::lock_guard guard(mutex);
  triggerStatus = status;
}

void SimulatedSystem::SetLockdownMode(std::optional<std::int32_t> mode, std::int32_t result) {
  const std::lock_guard guard(mutex);
  lockdownMode = mode;
  lockdownResult = result;
}

void SimulatedSystem::FailLockdownLibrary(Platform::ErrorCode error) {
  const std::lock_guard guard(mutex);
  libraryError = error;
}

bool SimulatedSystem::IsPresent(const std::wstring& name) const {
  const std::lock_guard guard(mutex);
  return missingApiSets.count(name) == 0;
}

Platform::Oobe::State SimulatedSystem::Query() const {
  const std::lock_guard guard(mutex);
  return {.known = oobeKnown, .complete = clock.Elapsed() >= oobeEnds};
}

std::uint32_t SimulatedSystem::Raise(const std::wstring& triggerId) {
  std::uint32_t status = 0;
  {
    const std::lock_guard guard(mutex);
    status = triggerStatus;
  }
  timeline.Add(L"trigger " + triggerId + (status == 0 ? L" is raised" : L" cannot be raised"));
  return status;
}

Platform::Result<std::int32_t> SimulatedSystem::QueryMode(const std::wstring&,
                                                          std::int32_t& mode) const {
  const std::lock_guard guard(mutex);
  if (libraryError != 0) return Platform::Failure(libraryError);
  if (lockdownMode) mode = *lockdownMode;
  return lockdownResult;
}

}  // namespace Vx::Simulator
