#pragma once

#include <memory>
#include <string>

#include "companion/behaviors.h"
#include "companion/qubo_behaviors.h"
#include "companion/resume_decision.h"
#include "host/logging.h"

namespace Vx::Tessel::Server::Services::Orvane::Qubo {

struct QuboLaunchOverride {
  QuboLaunchOverride() = default;
  explicit QuboLaunchOverride(bool force) : forceRun(force) {}

  bool forceRun = false;  // launch at every resume, whatever the other rules say
};

// Registers the console user's companion app, notifies it that setup is complete, starts it, and
// decides whether to start it after a resume.
//
// Constructed, used for one operation and destroyed on one thread. Keeps state only in the shared
// store. An operation that impersonates the user reverts before it returns. If a Windows call
// fails, the operation logs that and returns false. Blocks until the deployment ends (two minutes
// at most) or the app service replies.
class QuboFacade {
 public:
  using QuboStartingPoint = Qubo::QuboStartingPoint;

  static constexpr char datastore_key_wakeup_for_smode_skip[] = "qubo_wakeup_for_smode_skip";
  static constexpr char datastore_key_autolaunch_software_happened[] =
      "qubo_autolaunch_software_happened";
  static constexpr char datastore_key_autolaunch_registration_happened[] =
      "qubo_autolaunch_registration_happened";
  static constexpr wchar_t win_key_zephra[] = L"SOFTWARE\\Vx\\Tessel";
  static constexpr wchar_t win_key_value_name[] = L"qubo_force_launch_logic_after_sleep";
  static constexpr wchar_t oobe_app_service_name[] = L"Vx.Lumos.MachineEventHandler";
  static constexpr wchar_t oobe_app_service_name_qubo[] = L"Vx.Kestra.MachineEventHandler";

  QuboFacade();

  QuboFacade(std::shared_ptr<QuboDataAccessFactory> dataAccess,
             std::unique_ptr<Base::SoftwareCheckBehavior> firstSoftware,
             std::unique_ptr<Base::SoftwareCheckBehavior> secondSoftware,
             std::unique_ptr<Base::RegistrationCheckBehavior> registration,
             std::unique_ptr<Base::ModeCheckBehavior> mode,
             std::unique_ptr<Base::ApplicationLaunchBehavior> launch, QuboLaunchOverride override);
  QuboFacade(const QuboFacade&) = delete;
  QuboFacade& operator=(const QuboFacade&) = delete;

  // `name` receives the console user as "domain\user".
  bool GetCurrentUserName(std::wstring& name) const;

  // `fullName` receives the console user's companion package or, if none, the predecessor's.
  bool GetPackageFullName(std::wstring& fullName) const;

  // Registers the package if it is only staged. Returns true if it is registered afterwards.
  bool RegisterApp() const;
  bool RegisterApp(const std::wstring& user, const std::wstring& fullName) const;

  bool LaunchUwpForOobe() const { return launchBehavior->Run(); }
  bool LaunchUwpWithParameter(const std::wstring& parameter) const {
    return launchBehavior->Run(parameter);
  }

  // Registers the package, then starts the app if there is a reason to. Marks the reason as used
  // even if the app could not be started.
  QuboStartingPoint LaunchUwpWhenComingBackFromSleepIfNeeded();

  // Does the same without registering the package. Ignores `criteria`.
  QuboStartingPoint LaunchUwpWhenComingBackFromSleepIfNeeded(
      const std::shared_ptr<Base::ApplicationLaunchCriteriaDataAccess>& criteria);

  // Returns what a resume would do now, and why. Changes nothing.
  ResumeDecision ExplainResume() const;

  // Notifies the app through its app service that setup is complete.
  bool CallAppServiceAfterOobe() const;
  bool CallAppServiceAfterOobe(const std::wstring& packageFamilyName,
                               const std::wstring& appServiceName) const;

  // Marks a reason for an automatic launch as used. Accepts any key of 1 to 256 UTF-16 units.
  bool SkipAutoLaunchCriteria(const std::string& key) const;
  bool SkipAutoLaunchCriteria(
      const std::shared_ptr<Base::ApplicationLaunchCriteriaDataAccess>& criteria) const {
    return criteria->SaveSkipState(true);
  }

  // Return whether the predecessor's package is a 1.0 placeholder or a 1.1 build, respectively.
  bool IsStubClient() const;
  bool IsNuboClient() const;

 private:
  static QuboLaunchOverride GetLaunchOverride() {
    return QuboLaunchOverride(GetForceRunFromSleep());
  }
  static bool GetForceRunFromSleep();

  ResumeDecision GetStartingPointWhenComingBackFromSleepForWindowsS() const;
  void MarkAsUsed(QuboStartingPoint reason) const;

  const Logging::TraceLogger* logger;
  std::shared_ptr<QuboDataAccessFactory> factory;
  std::unique_ptr<Base::SoftwareCheckBehavior> softwareCheck;
  std::unique_ptr<Base::SoftwareCheckBehavior> softwareCheck2;
  std::unique_ptr<Base::RegistrationCheckBehavior> registrationCheck;
  std::unique_ptr<Base::ModeCheckBehavior> modeCheck;
  std::unique_ptr<Base::ApplicationLaunchBehavior> launchBehavior;
  QuboLaunchOverride launchOverride;
};

}  // namespace Vx::Tessel::Server::Services::Orvane::Qubo
