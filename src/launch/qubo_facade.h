#pragma once

#include <memory>
#include <string>

#include "host/logging.h"
#include "launch/behaviors.h"
#include "launch/qubo_behaviors.h"
#include "launch/resume_decision.h"

namespace Vx::Tessel::Server::Services::Orvane::Qubo {

struct QuboLaunchOverride {
  QuboLaunchOverride() = default;
  explicit QuboLaunchOverride(bool force) : forceRun(force) {}

  bool forceRun = false;  // launch at every resume, whatever the decision would be
};

// The companion app of the console user: its package's registration, telling it that set-up is
// over, starting it, and deciding whether a resume has to.
//
// Built for one operation on one thread and then dropped; its only memory is the shared store.
// Operations that act as the user have reverted when they return. Refusals of Windows are logged
// and answered with false. Blocks for as long as deployment (two minutes at most) or the app's own
// service takes.
class QuboFacade {
 public:
  using QuboStartingPoint = Qubo::QuboStartingPoint;

  static const char* const datastore_key_wakeup_for_smode_skip;
  static const char* const datastore_key_autolaunch_software_happened;
  static const char* const datastore_key_autolaunch_registration_happened;
  static const wchar_t* const win_key_zephra;
  static const wchar_t* const win_key_value_name;
  static const wchar_t* const oobe_app_service_name;
  static const wchar_t* const oobe_app_service_name_qubo;

  // For this machine as it is.
  QuboFacade();

  QuboFacade(std::shared_ptr<QuboDataAccessFactory> dataAccess,
             std::unique_ptr<Base::SoftwareCheckBehavior> firstSoftware,
             std::unique_ptr<Base::SoftwareCheckBehavior> secondSoftware,
             std::unique_ptr<Base::RegistrationCheckBehavior> registration,
             std::unique_ptr<Base::ModeCheckBehavior> mode,
             std::unique_ptr<Base::ApplicationLaunchBehavior> launch, QuboLaunchOverride override);
  QuboFacade(const QuboFacade&) = delete;
  QuboFacade& operator=(const QuboFacade&) = delete;
  ~QuboFacade();

  // `name` receives "domain\user" of the console user.
  bool GetCurrentUserName(std::wstring& name) const;

  // `fullName` receives the companion package that the console user has, the predecessor's where
  // there is no other.
  bool GetPackageFullName(std::wstring& fullName) const;

  // Registers the companion package for the console user if it is only staged; true when it is
  // registered afterwards.
  bool RegisterApp() const;
  bool RegisterApp(const std::wstring& user, const std::wstring& fullName) const;

  bool LaunchUwpForOobe() const;
  bool LaunchUwpWithParameter(const std::wstring& parameter) const;

  // Registers the package and decides. The reason of a launch counts as used whether or not the app
  // could be started.
  QuboStartingPoint LaunchUwpWhenComingBackFromSleepIfNeeded();

  // Decides. The mark is handed on by the other overload and not consulted.
  QuboStartingPoint LaunchUwpWhenComingBackFromSleepIfNeeded(
      const std::shared_ptr<Base::ApplicationLaunchCriteriaDataAccess>& criteria);

  // What a resume would do now, and why. Launches nothing and marks nothing.
  ResumeDecision ExplainResume() const;

  // Tells the app, through its app service, that set-up is over.
  bool CallAppServiceAfterOobe() const;
  bool CallAppServiceAfterOobe(const std::wstring& packageFamilyName,
                               const std::wstring& appServiceName) const;

  // Marks one reason for an automatic launch as used. Any key is taken.
  bool SkipAutoLaunchCriteria(const std::string& key) const;
  bool SkipAutoLaunchCriteria(
      const std::shared_ptr<Base::ApplicationLaunchCriteriaDataAccess>& criteria) const;

  // Whether the predecessor's package is a 1.0 placeholder, or a 1.1 build.
  bool IsStubClient() const;
  bool IsNuboClient() const;

 private:
  static QuboLaunchOverride GetLaunchOverride();
  static bool GetForceRunFromSleep();

  ResumeDecision GetStartingPointWhenComingBackFromSleepForWindowsS() const;
  void MarkAsUsed(QuboStartingPoint reason) const;

  // Runs `action` as the console user and answers what it answers; false when that cannot be done.
  template <typename Action>
  bool AsConsoleUser(Action&& action) const;

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
