#include "companion/qubo_facade.h"

#include <cstdint>
#include <exception>
#include <new>
#include <string_view>
#include <utility>

#include "companion/companion_apps.h"
#include "companion/windows_mode.h"
#include "json/utf8.h"
#include "launch/launcher.h"
#include "packages/uwp_package.h"
#include "platform/console_user.h"
#include "platform/machine.h"
#include "platform/registry.h"
#include "platform/sessions.h"
#include "platform/system_services.h"

namespace Vx::Tessel::Server::Services::Orvane::Qubo {

namespace {

using Logging::LogManager;
using Platform::CurrentMachine;

constexpr wchar_t kNoSessionApi[] =
    L"Problem in QuboFacade::GetCurrentUserName(): WTSQuerySessionInformation is not available on "
    L"this platform";
constexpr wchar_t kRevertFailed[] =
    L"Problem while reverting the impersonation while collecting data to register UWP.";
constexpr wchar_t kNoQuboName[] =
    L"Attempt to get full package full name for Qubo failed. Trying LumoS.";
constexpr wchar_t kNoLumoName[] = L"Attempt to get full package full name for LumoS failed.";
constexpr wchar_t kCheckingRegistration[] = L"Checking if UWP needs to be registered for %s";
constexpr wchar_t kRegistering[] = L"Need to enforce the registration of the UWP.";
constexpr wchar_t kNoNeedToRegister[] = L"No need to register the UWP.";
constexpr wchar_t kRegistrationFailed[] =
    L"Problem while running the operation of check/register of the UWP application. %ls";
constexpr wchar_t kNoMemory[] = L"out of memory";
constexpr wchar_t kForcing[] = L"Forcing to launch the UWP.";
constexpr wchar_t kDetermining[] = L"Determining if the UWP has to auto-launch.";
constexpr wchar_t kSavingSkipState[] = L"Saving skip state for %S";
constexpr wchar_t kLaunchResult[] = L"Result of launching UWP was %d";
constexpr wchar_t kAppServiceUnreachable[] = L"Could not communicate with AppService for OOBE";
constexpr wchar_t kQuboAppServiceOk[] = L"OOBE AppService for Qubo was ok.";
constexpr wchar_t kQuboAppServiceFailed[] =
    L"OOBE AppService for Qubo failed. Attempting Vx Lumo's one.";
constexpr wchar_t kLumoAppServiceResult[] = L"Attempt to launch Vx Lumo's AppService (OOBE) was %d";

constexpr wchar_t kOobeCompleted[] = L"{ \"command\": \"oobe_completed\" }";
static_assert(std::wstring_view(kOobeCompleted).size() == 31);

constexpr unsigned kStubMinor = 0;
constexpr unsigned kNuboMinor = 1;

// Logs `error` even if there is not enough memory to convert its text.
void LogRegistrationFailure(const Logging::TraceLogger& logger,
                            const std::exception& error) noexcept {
  try {
    logger.LogError(kRegistrationFailed, Json::ToWide(error.what()).c_str());
  } catch (const std::bad_alloc&) {
    logger.LogError(kRegistrationFailed, kNoMemory);
  }
}

bool NotifyOfOobe(const Logging::TraceLogger& logger, const wchar_t* packageFamilyName,
                  const wchar_t* appServiceName) {
  try {
    const auto service = CurrentMachine().appServices->Open(packageFamilyName, appServiceName);
    return service->Send(kOobeCompleted).first == 0;
  } catch (const std::exception&) {
    logger.LogError(kAppServiceUnreachable);
    return false;
  }
}

// Returns the full name of the package that the thread's user has, or an empty string on failure.
std::wstring FullNameOf(const CompanionApp& app) {
  try {
    return FirstPackageOf(app.packageFamilyName);
  } catch (const std::exception&) {
    return {};
  }
}

void ReportRefusedStep(Platform::ActingStep step, Platform::ErrorCode error) {
  if (step == Platform::ActingStep::Revert) {
    LogManager::SetProvider(Logging::kComponentProvider)->LogWarning(kRevertFailed);
  } else {
    LogRefusedStep(step, error);
  }
}

// Runs `action` as the console user and returns its result, or false if impersonation fails.
template <typename Action>
bool AsConsoleUser(Action&& action) {
  const auto token = Launcher().GetUserTokenForCurrentUser(Platform::TokenType::Primary);
  return Platform::AsUser(token.get(), &ReportRefusedStep, std::forward<Action>(action));
}

bool IsFirstMajor(std::uint64_t version, unsigned minor) {
  return (version >> 48) == 1 && ((version >> 32) & 0xFFFF) == minor;
}

}  // namespace

QuboFacade::QuboFacade()
    : QuboFacade(
          std::make_shared<QuboDataAccessFactory>(),
          std::make_unique<SentraSoftwareCheckBehavior>(),
          std::make_unique<McAfeeSoftwareCheckBehavior>(),
          std::make_unique<QuboRegistrationCheckBehavior>(std::make_unique<RegistrationHelper>()),
          std::make_unique<WindowsModeCheckBehavior>(), std::make_unique<QuboUwpLaunchBehavior>(),
          GetLaunchOverride()) {}

QuboFacade::QuboFacade(std::shared_ptr<QuboDataAccessFactory> dataAccess,
                       std::unique_ptr<Base::SoftwareCheckBehavior> firstSoftware,
                       std::unique_ptr<Base::SoftwareCheckBehavior> secondSoftware,
                       std::unique_ptr<Base::RegistrationCheckBehavior> registration,
                       std::unique_ptr<Base::ModeCheckBehavior> mode,
                       std::unique_ptr<Base::ApplicationLaunchBehavior> launch,
                       QuboLaunchOverride override)
    : logger(LogManager::SetProvider(Logging::kComponentProvider)),
      factory(std::move(dataAccess)),
      softwareCheck(std::move(firstSoftware)),
      softwareCheck2(std::move(secondSoftware)),
      registrationCheck(std::move(registration)),
      modeCheck(std::move(mode)),
      launchBehavior(std::move(launch)),
      launchOverride(override) {}

bool QuboFacade::GetForceRunFromSleep() {
  return CurrentMachine().registry->Exists(win_key_zephra, win_key_value_name);
}

bool QuboFacade::GetCurrentUserName(std::wstring& name) const {
  if (!CurrentMachine().apiSets->IsPresent(Platform::kSessionApiSet)) {
    logger->LogError(kNoSessionApi);
    return false;
  }
  return AsConsoleUser([&] {
    const Platform::Sessions& sessions = *CurrentMachine().sessions;
    const std::uint32_t session = sessions.ActiveConsoleSession();
    const auto user = sessions.QueryText(session, Platform::SessionText::UserName);
    const auto domain = sessions.QueryText(session, Platform::SessionText::DomainName);
    if (!user || !domain) return false;
    name = *domain + L'\\' + *user;
    return true;
  });
}

bool QuboFacade::GetPackageFullName(std::wstring& fullName) const {
  return AsConsoleUser([&] {
    for (const auto& [app, missing] :
         {std::pair(kQubo, kNoQuboName), std::pair(kLumo, kNoLumoName)}) {
      fullName = FullNameOf(app);
      if (!fullName.empty()) return true;
      logger->LogWarning(missing);
    }
    return false;
  });
}

bool QuboFacade::RegisterApp() const {
  try {
    std::wstring user;
    std::wstring fullName;
    return GetCurrentUserName(user) && GetPackageFullName(fullName) && RegisterApp(user, fullName);
  } catch (const std::exception& error) {
    LogRegistrationFailure(*logger, error);
    return false;
  }
}

bool QuboFacade::RegisterApp(const std::wstring& user, const std::wstring& fullName) const {
  logger->LogInfo(kCheckingRegistration, user.c_str());
  try {
    const UwpPackage package;
    if (!package.ShouldForceRegistration(user, fullName)) {
      logger->LogInfo(kNoNeedToRegister);
      return true;
    }
    logger->LogInfo(kRegistering);
    package.Register(fullName);
    return true;
  } catch (const std::exception& error) {
    LogRegistrationFailure(*logger, error);
    return false;
  }
}

QuboStartingPoint QuboFacade::LaunchUwpWhenComingBackFromSleepIfNeeded() {
  const auto criteria =
      factory->CreateApplicationLaunchCriteriaDataAccess(datastore_key_wakeup_for_smode_skip);
  RegisterApp();
  return LaunchUwpWhenComingBackFromSleepIfNeeded(criteria);
}

QuboStartingPoint QuboFacade::LaunchUwpWhenComingBackFromSleepIfNeeded(
    const std::shared_ptr<Base::ApplicationLaunchCriteriaDataAccess>& /*criteria*/) {
  logger->LogInfo(launchOverride.forceRun ? kForcing : kDetermining);
  const QuboStartingPoint startingPoint = ExplainResume().startingPoint;
  if (startingPoint == QuboStartingPoint::None) return startingPoint;
  const bool launched = launchBehavior->Run();
  MarkAsUsed(startingPoint);
  logger->LogInfo(kLaunchResult, launched ? 1 : 0);
  return startingPoint;
}

ResumeDecision QuboFacade::ExplainResume() const {
  if (launchOverride.forceRun) return {QuboStartingPoint::Forced, ResumeRule::Forced, {}};
  return GetStartingPointWhenComingBackFromSleepForWindowsS();
}

ResumeDecision QuboFacade::GetStartingPointWhenComingBackFromSleepForWindowsS() const {
  const auto softwareUsed = factory->CreateApplicationLaunchCriteriaDataAccess(
      datastore_key_autolaunch_software_happened);
  const auto registrationUsed = factory->CreateApplicationLaunchCriteriaDataAccess(
      datastore_key_autolaunch_registration_happened);
  return DecideResume({*softwareCheck, *softwareCheck2, *registrationCheck, *modeCheck,
                       *softwareUsed, *registrationUsed});
}

void QuboFacade::MarkAsUsed(QuboStartingPoint reason) const {
  const char* key = nullptr;
  if (reason == QuboStartingPoint::Registration) {
    key = datastore_key_autolaunch_registration_happened;
  } else if (reason == QuboStartingPoint::Software) {
    key = datastore_key_autolaunch_software_happened;
  } else {
    return;
  }
  factory->CreateApplicationLaunchCriteriaDataAccess(key)->SaveSkipState(true);
  logger->LogInfo(kSavingSkipState, key);
}

bool QuboFacade::CallAppServiceAfterOobe() const {
  if (NotifyOfOobe(*logger, kQubo.packageFamilyName, oobe_app_service_name_qubo)) {
    logger->LogInfo(kQuboAppServiceOk);
    return true;
  }
  logger->LogWarning(kQuboAppServiceFailed);
  const bool notified = NotifyOfOobe(*logger, kLumo.packageFamilyName, oobe_app_service_name);
  logger->LogInfo(kLumoAppServiceResult, notified ? 1 : 0);
  return notified;
}

bool QuboFacade::CallAppServiceAfterOobe(const std::wstring& packageFamilyName,
                                         const std::wstring& appServiceName) const {
  return NotifyOfOobe(*logger, packageFamilyName.c_str(), appServiceName.c_str());
}

bool QuboFacade::SkipAutoLaunchCriteria(const std::string& key) const {
  return SkipAutoLaunchCriteria(factory->CreateApplicationLaunchCriteriaDataAccess(key));
}

bool QuboFacade::IsStubClient() const {
  const auto info = factory->CreateUwpBuildInfoDataAccess()->GetOriginAndVersion();
  return IsFirstMajor(info.second, kStubMinor);
}

bool QuboFacade::IsNuboClient() const {
  const auto info = factory->CreateUwpBuildInfoDataAccess()->GetOriginAndVersion();
  return IsFirstMajor(info.second, kNuboMinor);
}

}  // namespace Vx::Tessel::Server::Services::Orvane::Qubo
