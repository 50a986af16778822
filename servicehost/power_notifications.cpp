#include "servicehost/power_notifications.h"

#include <windows.h>

// As documented for powrprof.dll. This toolchain's headers do not declare them.
extern "C" {
DWORD WINAPI PowerRegisterSuspendResumeNotification(DWORD flags, HANDLE recipient, void** handle);
DWORD WINAPI PowerUnregisterSuspendResumeNotification(void* handle);
}

namespace Vx::Hosting::ServiceHost {

namespace {

ULONG CALLBACK Notify(void* context, ULONG code, void* /*setting*/) {
  (*static_cast<PowerNotifications::Receiver*>(context))(code);
  return ERROR_SUCCESS;
}

}  // namespace

PowerNotifications::PowerNotifications(Receiver receive)
    : receiver(std::move(receive)), recipient{reinterpret_cast<void*>(&Notify), &receiver} {
  constexpr DWORD kCallback = 2;  // DEVICE_NOTIFY_CALLBACK
  if (PowerRegisterSuspendResumeNotification(kCallback, &recipient, &handle) != ERROR_SUCCESS) {
    handle = nullptr;
  }
}

PowerNotifications::~PowerNotifications() {
  if (handle != nullptr) PowerUnregisterSuspendResumeNotification(handle);
}

}  // namespace Vx::Hosting::ServiceHost
