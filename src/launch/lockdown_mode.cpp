#include "launch/lockdown_mode.h"

#include <cstddef>
#include <string>

#include "host/logging.h"
#include "json/utf8.h"
#include "platform/environment.h"
#include "platform/machine.h"
#include "platform/system_services.h"
#include "security/authenticode_facade.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kLoadFailed[] = L"%S.%S failed to load dll %s with error: %d";
constexpr wchar_t kCallFailed[] = L"%S.%S - failed on function %s with HRESULT 0x%x";

constexpr char kQueryLockoutMode[] = "QueryLockoutMode";
constexpr wchar_t kQueryFunction[] = L"WldpQueryWindowsLockdownMode";
constexpr wchar_t kPolicyLibrary[] = L"%windir%\\System32\\wldp.dll";

}  // namespace

std::int32_t QueryLockoutMode(const wchar_t* callerName) {
  const Platform::Machine& machine = Platform::CurrentMachine();
  const auto path = machine.environment->Expand(kPolicyLibrary, Platform::kShortPath);
  if (!path || !Security::VxAuthenticodeFacade().IsFileTrusted(path->c_str())) return 0;

  const auto* const logger = Logging::LogManager::SetProvider(Logging::kComponentProvider);
  const std::string caller = Json::ToUtf8(callerName != nullptr ? callerName : L"");
  const auto library = machine.lockdownLibraries->Load(*path);
  if (!library) {
    logger->LogWarning(kLoadFailed, caller.c_str(), kQueryLockoutMode, path->c_str(),
                       library.Error());
    return 0;
  }
  std::int32_t mode = 0;
  const std::int32_t status = (*library)->QueryMode(mode);
  if (status < 0) {
    logger->LogWarning(kCallFailed, caller.c_str(), kQueryLockoutMode, kQueryFunction, status);
  }
  return mode;
}

}  // namespace Vx::Tessel::Server::Services::Orvane
