#include "simulator/simulated_kernel_objects.h"

#include <cstdint>
#include <system_error>

#include <windows.h>

#include "platform/machine.h"

namespace Vx::Simulator {

namespace {

// The documented name of the event that reports Modern Standby to the service.
constexpr wchar_t kStandbyEvent[] = L"{CE7DC567-F47B-4A07-8489-C9DEB372B88F}";

Platform::KernelObjects& RealObjects() {
  return *Platform::WindowsMachine().kernelObjects;
}

}  // namespace

void SimulatedKernelObjects::SetStandby(bool entered) {
  if (standby == nullptr) {
    auto event = MakeManualEvent(kStandbyEvent);
    if (!event) throw std::system_error(static_cast<int>(event.Error()), std::system_category());
    standby = *std::move(event);
  }
  if (entered) {
    SetEvent(standby.get());
  } else {
    ResetEvent(standby.get());
  }
}

std::wstring SimulatedKernelObjects::OwnName(const std::wstring& name) const {
  return name + L"-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
         std::to_wstring(reinterpret_cast<std::uintptr_t>(this));
}

Platform::Result<Platform::UniqueHandle> SimulatedKernelObjects::MakeMutex(
    const std::wstring& name) {
  return RealObjects().MakeMutex(name);
}

Platform::Result<SimulatedKernelObjects::Locked> SimulatedKernelObjects::LockMutex(
    Platform::RawHandle mutex) {
  return RealObjects().LockMutex(mutex);
}

Platform::ErrorCode SimulatedKernelObjects::UnlockMutex(Platform::RawHandle mutex) {
  return RealObjects().UnlockMutex(mutex);
}

Platform::Result<Platform::UniqueHandle> SimulatedKernelObjects::MakeManualEvent(
    const std::wstring& name) {
  return RealObjects().MakeManualEvent(name.empty() ? name : OwnName(name));
}

Platform::ErrorCode SimulatedKernelObjects::Signal(Platform::RawHandle event) {
  return RealObjects().Signal(event);
}

}  // namespace Vx::Simulator
