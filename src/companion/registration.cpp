#include "companion/registration.h"

#include <exception>
#include <utility>

#include "companion/text_files.h"
#include "launch/launcher.h"
#include "platform/console_user.h"
#include "storage/cap_data_store.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kValueIs[] = L"value for %S is %S";
constexpr wchar_t kKeyMissing[] = L"%S key doesn't exist.";
constexpr wchar_t kNoSessionApi[] =
    L"Problem in McAfeeHelper::expand_path_impersonated_as_loggedin_user(): WTSQueryUserToken is "
    L"not available on this platform";

constexpr char kRegistration[] = "registration_full_sent";
constexpr char kNotSet[] = "not_set";

constexpr wchar_t kMachineData[] = L"%programdata%\\Vx\\Registration\\registration_subset.xml";
constexpr wchar_t kUserData[] = L"%AppData%\\Vx\\Vx Setup\\REGDATA\\RegistrationSubset.xml";
constexpr wchar_t kResumeCaller[] = L"Win10SSwitch";

std::string StoredState() {
  try {
    Storage::BsonElement stored;
    if (!Storage::CapDataStore().read(kRegistration, stored)) return kNotSet;
    return std::string(stored.AsText().value_or(kNotSet));
  } catch (const std::exception&) {
    return kNotSet;
  }
}

Platform::ActingReport ReportTo(const Logging::TraceLogger& logger) {
  return [&logger](Platform::ActingStep step, Platform::ErrorCode) {
    if (step == Platform::ActingStep::SessionApi) {
      logger.LogError(kNoSessionApi);
    } else {
      LogRefusedStep(logger, step);
    }
  };
}

bool Expand(const wchar_t* path, std::wstring& expanded, Platform::OneLogon& user) {
  return McAfeeHelper().expand_path_impersonated_as_loggedin_user(path, expanded, &user);
}

// The user controls the destination folder, where a link may wait, and the variables in both paths.
// So the copy reads and writes with no more rights than the user has, and never with another
// user's.
bool CopyAsUser(const std::wstring& source, const std::wstring& destination,
                Platform::OneLogon& user, const wchar_t* caller,
                const Logging::TraceLogger& logger) {
  const auto report = ReportTo(*Logging::LogManager::SetProvider(Logging::kComponentProvider));
  const auto token = Platform::ConsoleUserToken(Platform::TokenType::Impersonation, report, &user);
  return Platform::AsUser(token.get(), report,
                          [&] { return CopyFileContent(source, destination, caller, logger); });
}

}  // namespace

RegistrationHelper::RegistrationHelper()
    : logger(Logging::LogManager::SetProvider(Logging::kComponentProvider)) {}

RegistrationHelper::RegistrationState RegistrationHelper::GetRegistrationState() const {
  const std::string value = StoredState();
  logger->LogInfo(kValueIs, kRegistration, value.c_str());
  if (value == kNotSet) logger->LogWarning(kKeyMissing, kRegistration);
  return MapValueToState(value);
}

RegistrationHelper::RegistrationState RegistrationHelper::MapValueToState(std::string_view value) {
  static constexpr struct {
    std::string_view text;
    RegistrationState state;
  } kStates[] = {
      {"yes", RegistrationState::Yes},
      {"no", RegistrationState::No},
      {"skipped_uwp", RegistrationState::No},
      {"skipped_oobe", RegistrationState::SkippedOobe},
      {"pending_oobe", RegistrationState::Pending},
      {"pending_uwp", RegistrationState::Pending},
  };
  for (const auto& entry : kStates) {
    if (entry.text == value) return entry.state;
  }
  return RegistrationState::Unknown;
}

McAfeeHelper::McAfeeHelper()
    : logger(Logging::LogManager::SetProvider(Logging::kComponentProvider)) {}

bool McAfeeHelper::expand_path_impersonated_as_loggedin_user(const std::wstring& path,
                                                             std::wstring& expanded,
                                                             Platform::OneLogon* same) const {
  logger->LogInfo(kActingAsUser);
  const auto token =
      Platform::ConsoleUserToken(Platform::TokenType::Impersonation, ReportTo(*logger), same);
  auto answer = ExpandAsUser(token.get(), path, *logger);
  if (!answer) return false;
  expanded = *std::move(answer);
  return true;
}

bool CopyRegistrationData(const wchar_t* caller, const Logging::TraceLogger& logger) {
  std::wstring source;
  std::wstring destination;
  Platform::OneLogon user;
  return Expand(kMachineData, source, user) && Expand(kUserData, destination, user) &&
         CopyAsUser(source, destination, user, caller, logger);
}

bool RefreshRegistrationData(const Logging::TraceLogger& logger) {
  std::wstring source;
  std::wstring destination;
  Platform::OneLogon user;
  return Expand(kUserData, destination, user) && Expand(kMachineData, source, user) &&
         CopyAsUser(source, destination, user, kResumeCaller, logger);
}

}  // namespace Vx::Tessel::Server::Services::Orvane
