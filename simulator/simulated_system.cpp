#include "simulator/simulated_system.h"

namespace Vx::Simulator {

// Reports the machine's lockdown mode at the time of each call.
class SimulatedSystem::Library final : public Platform::LockdownLibrary {
 public:
  explicit Library(const SimulatedSystem& system) : owner(system) {}

  std::int32_t QueryMode(std::int32_t& mode) const override {
    const std::lock_guard guard(owner.mutex);
    if (owner.lockdownMode) mode = *owner.lockdownMode;
    return owner.lockdownResult;
  }

 private:
  const SimulatedSystem& owner;
};

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

Platform::Result<std::unique_ptr<Platform::LockdownLibrary>> SimulatedSystem::Load(
    const std::wstring&) {
  const std::lock_guard guard(mutex);
  if (libraryError != 0) return Platform::Failure(libraryError);
  return std::unique_ptr<Platform::LockdownLibrary>(std::make_unique<Library>(*this));
}

}  // namespace Vx::Simulator
