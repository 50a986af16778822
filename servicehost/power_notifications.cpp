#include "servicehost/power_notifications.h"

#include <cstring>
#include <iterator>
#include <system_error>
#include <utility>

#include <windows.h>

#include <powrprof.h>

#include "platform/windows/deferred_library.h"

namespace Vx::Hosting::ServiceHost {

namespace {

// Declared as documented for powrprof.dll, because this toolchain's headers lack them.
using RegisterSetting = DWORD WINAPI(const GUID* setting, DWORD flags, HANDLE recipient,
                                     void** handle);
using RegisterSleep = DWORD WINAPI(DWORD flags, HANDLE recipient, void** handle);
using Unregister = DWORD WINAPI(void* handle);

// https://learn.microsoft.com/windows/win32/power/power-setting-guids
constexpr GUID kConsoleDisplayState = {
    0x6fe69556, 0x704a, 0x47a0, {0x8f, 0x24, 0xc2, 0x8d, 0x93, 0x6f, 0xda, 0x47}};
constexpr DWORD kCallback = 2;  // DEVICE_NOTIFY_CALLBACK

constinit Platform::DeferredLibrary powrprof(L"powrprof.dll");

ULONG CALLBACK Notify(void* context, ULONG code, void* data) {
  std::uint32_t value = code;
  if (code == PBT_POWERSETTINGCHANGE) {
    const auto* const setting = static_cast<const POWERBROADCAST_SETTING*>(data);
    if (setting == nullptr || setting->DataLength != sizeof value) return ERROR_SUCCESS;
    std::memcpy(&value, setting->Data, sizeof value);
  }
  (*static_cast<PowerNotifications::Receiver*>(context))(value);
  return ERROR_SUCCESS;
}

}  // namespace

PowerNotifications::PowerNotifications(Kind what, Receiver receive)
    : kind(what),
      receiver(std::move(receive)),
      recipient{reinterpret_cast<void*>(&Notify), &receiver} {
  DWORD error = ERROR_PROC_NOT_FOUND;
  if (kind == Kind::Sleep) {
    auto* const add = powrprof.Find<RegisterSleep>("PowerRegisterSuspendResumeNotification");
    if (add != nullptr) error = add(kCallback, &recipient, &handle);
  } else {
    auto* const add = powrprof.Find<RegisterSetting>("PowerSettingRegisterNotification");
    if (add != nullptr) error = add(&kConsoleDisplayState, kCallback, &recipient, &handle);
  }
  if (error != ERROR_SUCCESS) {
    throw std::system_error(static_cast<int>(error), std::system_category());
  }
}

PowerNotifications::~PowerNotifications() {
  auto* const remove =
      powrprof.Find<Unregister>(kind == Kind::Sleep ? "PowerUnregisterSuspendResumeNotification"
                                                    : "PowerSettingUnregisterNotification");
  if (remove != nullptr) remove(handle);
}

bool HasModernStandby() {
  auto* const get = powrprof.Find<decltype(GetPwrCapabilities)>("GetPwrCapabilities");
  // The last of these bytes is AoAc (always on, always connected), which the header does not name.
  SYSTEM_POWER_CAPABILITIES capabilities{};
  return get != nullptr && get(&capabilities) != FALSE &&
         capabilities.spare2[std::size(capabilities.spare2) - 1] != 0;
}

}  // namespace Vx::Hosting::ServiceHost
