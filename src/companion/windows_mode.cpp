#include "companion/windows_mode.h"

#include <exception>
#include <string>
#include <utility>

#include "json/utf8.h"
#include "platform/environment.h"
#include "platform/files.h"
#include "platform/machine.h"
#include "platform/system_services.h"
#include "security/authenticode_facade.h"
#include "storage/cap_data_store.h"
#include "storage/service_document.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kLoadFailed[] = L"%S.%S failed to load dll %s with error: %d";
constexpr wchar_t kCallFailed[] = L"%S.%S - failed on function %s with HRESULT 0x%x";

constexpr char kQueryLockoutMode[] = "QueryLockoutMode";
constexpr wchar_t kQueryFunction[] = L"WldpQueryWindowsLockdownMode";
constexpr wchar_t kPolicyLibrary[] = L"%windir%\\System32\\wldp.dll";

constexpr wchar_t kNoDocument[] = L"Could not retrive OrvaneService for WindowsModeCheckBehavior";
constexpr wchar_t kCurrentMode[] = L"%S.%S Current Lockdown Policy is %d";
constexpr wchar_t kFirstMode[] = L"%S.%S First Lockdown Policy is %d";
constexpr wchar_t kSwitched[] = L"%S.%S Detected S Mode Switch";
constexpr wchar_t kSwitchedValue[] = L"%S.%S Detected S Mode Switch %d";

constexpr char kNoClass[] = "";
constexpr char kHasBeenInSMode[] = "HasBeenInSMode";
constexpr std::int32_t kUnknownMode = -1;

}  // namespace

std::int32_t QueryLockoutMode(const wchar_t* callerName) {
  const Platform::Machine& machine = Platform::CurrentMachine();
  const auto path = machine.environment->Expand(kPolicyLibrary, Platform::kShortPath);
  if (!path) return 0;
  const auto* const logger = Logging::LogManager::SetProvider(Logging::kComponentProvider);
  const std::string caller = Json::ToUtf8(callerName != nullptr ? callerName : L"");
  const auto notLoaded = [&](Platform::ErrorCode error) {
    logger->LogWarning(kLoadFailed, caller.c_str(), kQueryLockoutMode, path->c_str(), error);
    return 0;
  };
  // Keeps the verified file from being replaced before it is loaded.
  const auto lock = machine.files->OpenReadLocked(*path);
  if (!Security::VxAuthenticodeFacade().IsFileTrusted(path->c_str())) return 0;
  if (!lock) return notLoaded(lock.Error());
  std::int32_t mode = 0;
  const auto status = machine.lockdownPolicy->QueryMode(*path, mode);
  if (!status) return notLoaded(status.Error());
  if (*status < 0) {
    logger->LogWarning(kCallFailed, caller.c_str(), kQueryLockoutMode, kQueryFunction, *status);
  }
  return mode;
}

namespace Qubo {

WindowsModeCheckBehavior::WindowsModeCheckBehavior()
    : logger(Logging::LogManager::SetProvider(Logging::kComponentProvider)) {
  try {
    if (auto stored = Storage::CapDataStore().documentAtOpening(kServiceDocument)) {
      document = *std::move(stored);
      return;
    }
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch): logged below
  }
  logger->LogError(kNoDocument);
}

bool WindowsModeCheckBehavior::IsInSMode() const {
  return QueryLockoutMode(L"") == kLockedMode;
}

bool WindowsModeCheckBehavior::HasBeenInSMode() {
  const bool current = IsInSMode();
  logger->LogInfo(kCurrentMode, kNoClass, kHasBeenInSMode, current ? 1 : 0);
  const auto stored = document.Find(kFirstEnforcementMode);
  const std::int32_t first = stored ? stored->AsInt32().value_or(kUnknownMode) : kUnknownMode;
  logger->LogInfo(kFirstMode, kNoClass, kHasBeenInSMode, first);
  if (first != kLockedMode || current) return false;
  logger->LogInfo(kSwitched, kNoClass, kHasBeenInSMode);
  logger->LogInfo(kSwitchedValue, kNoClass, kHasBeenInSMode, 1);
  return true;
}

}  // namespace Qubo

}  // namespace Vx::Tessel::Server::Services::Orvane
