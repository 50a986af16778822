#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Vx::Host {

// What readers of a log look for, as the module, the host and the simulated machine write it. The
// texts of deliveries are in the DeliveryKind of the module itself.
namespace LogFormat {

inline constexpr wchar_t kListChanged[] = L"OrvaneService - subscription %s: %s (function id %u)%s";
inline constexpr wchar_t kNotTrusted[] =
    L"LaunchCommand::Execute - %s not trusted to launch as system";
inline constexpr wchar_t kLaunching[] =
    L"LaunchedCommand::Execute attempting to launch \"%s\" with args \"%s\"";
inline constexpr wchar_t kLaunched[] = L"LaunchCommand::Execute returned with result %i and PID %u";
inline constexpr wchar_t kNotOpened[] = L"TrustedProgram - [%s] is not opened, because it %s";
inline constexpr wchar_t kLock[] =
    L"Vx::Tessel::Security::VxAuthenticodeHelper::AquireFileReadOnlyLock(%s) : %s";
inline constexpr wchar_t kTrusted[] =
    L"Security - IsFileTrusted - trusted by windows = %s, trusted by Zephra = %s";
inline constexpr wchar_t kNoMessage[] =
    L"AppServiceProxySDK - no message to app service %s of %s, sent as %s: status %s";
inline constexpr wchar_t kTooMany[] = L"%s - dropped, because %d deliveries of %s already: %s";
inline constexpr wchar_t kServiceEnded[] =
    L"%s - dropped while it waited, because the service ends: %s";
inline constexpr wchar_t kLost[] = L"%s - this delivery is lost, because of \"%s\": %s";
inline constexpr wchar_t kUninstall[] =
    L"PackageUninstallingEvent invoked. Searching for PFN: %s, PFN received: %s";
inline constexpr wchar_t kRunningLate[] =
    L"RegisterExistingPackageCatalogManagerRequests - App uninstalled while service was not "
    L"running. Executing command now";
inline constexpr wchar_t kPowerEvent[] = L"power event %d";
inline constexpr wchar_t kModuleStarted[] = L"the module is started: %s";
inline constexpr wchar_t kModuleStopped[] = L"the module is stopped";

}  // namespace LogFormat

// The texts at the conversions of `format`, or nothing when the message was not made with it.
std::optional<std::vector<std::wstring>> Match(std::wstring_view format,
                                               const std::wstring& message);

// Why a delivery of `delay` seconds was dropped when `elapsed` milliseconds counted.
std::wstring Lateness(int delay, std::int64_t elapsed, bool standby);

}  // namespace Vx::Host
