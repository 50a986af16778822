#pragma once

#include <string>

#include "platform/kernel_objects.h"

namespace Vx::Simulator {

// The real mutexes and events. Event names are private to this machine, because several simulated
// machines may run at once. Thread-safe.
class SimulatedKernelObjects : public Platform::KernelObjects {
 public:
  // Signals or resets the event for Modern Standby.
  void SetStandby(bool entered);

  Platform::Result<Platform::UniqueHandle> MakeMutex(const std::wstring& name) override;
  Platform::Result<Locked> LockMutex(Platform::RawHandle mutex) override;
  Platform::ErrorCode UnlockMutex(Platform::RawHandle mutex) override;
  Platform::Result<Platform::UniqueHandle> MakeManualEvent(const std::wstring& name) override;
  Platform::ErrorCode Signal(Platform::RawHandle event) override;

 private:
  std::wstring OwnName(const std::wstring& name) const;

  Platform::UniqueHandle standby;  // created by the first SetStandby; keeps the event alive
};

}  // namespace Vx::Simulator
