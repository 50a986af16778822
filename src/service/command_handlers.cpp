#include "service/command_handlers.h"

#include <exception>
#include <string>

#include "companion/qubo_behaviors.h"
#include "companion/qubo_facade.h"
#include "companion/registration.h"
#include "companion/windows_mode.h"
#include "events/package_event.h"
#include "events/package_event_manager.h"
#include "events/subscription_delivery.h"
#include "events/subscription_forms.h"
#include "host/logging.h"
#include "json/json_object.h"
#include "launch/launcher.h"
#include "platform/console_user.h"
#include "platform/windows_runtime_error.h"
#include "service/consent_store.h"
#include "service/orvane_service.h"
#include "storage/cap_data_store.h"
#include "storage/request_manager.h"
#include "storage/service_document.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using Records::Decision;
using Records::Outcome;
using Records::Reason;

constexpr wchar_t kStateIs[] = L"RegistrationState code to be returned is %d";
constexpr wchar_t kRevertFailed[] = L"Failed to RevertToSelf";
constexpr wchar_t kVersionIs[] = L"Version number is %s";
constexpr wchar_t kVersionDone[] = L"GetVersion executed";
constexpr wchar_t kParameterUnreadable[] =
    L"Problem while parsing the parameter property of JSON's request. %S";
constexpr char kNoParameter[] = "parameter is missing or is not a string";
constexpr wchar_t kPackageRuntimeError[] =
    L"OrvaneService - RegisterAppPackageEvent threw hresult_error: Message: %s, Code: %i";
constexpr wchar_t kPackageFailed[] = L"OrvaneService - RegisterAppPacakgeEvent threw %S";

constexpr wchar_t kVersion[] = L"" VX_VERSION;

bool IsInstalledForConsoleUser(const std::wstring& packageFamilyName, const RequestCaller& caller) {
  const Launcher launcher;
  const auto token = launcher.GetUserTokenForCurrentUser(Platform::TokenType::Impersonation);
  const auto report = [&caller](Platform::ActingStep step, Platform::ErrorCode) {
    if (step == Platform::ActingStep::Revert) Log(caller).LogWarning(kRevertFailed);
  };
  return Platform::AsUser(token.get(), report, [&] {
    return !launcher.GetPackageFullNameByFamilyName(packageFamilyName).empty();
  });
}

RequestProblem ProblemOf(const Platform::WindowsRuntimeError& error) {
  switch (error.code()) {
    case kAlreadySubscribed:
      return {L"request", L"is subscribed already", {}, Reason::AlreadyStored};
    case kPackageNotInstalled:
      return {
          L"packageFamilyName", L"names a package that is not installed", {}, Reason::NotInstalled};
    case kConsoleUserUnavailable:
      return {L"request", L"needs a user at the console", {}, Reason::NoConsoleUser};
    case kUnknownCatalogEvent:
      return {L"catalogEvent", L"is unknown", {}, Reason::UnknownEvent};
    case kUnknownAction:
      return {L"catalogAction", L"is unknown", {}, Reason::UnknownAction};
    case Json::kJsonValueNotFound:
    case Json::kIllegalMethodCall:
      return {L"request", L"failed: ", error.message(), Reason::BadMember};
    default:
      return {L"request", L"failed: ", error.message(), Reason::EarlierLines};
  }
}

// Names the subscription in the record. A power or platform subscription is stored without being
// parsed, so a fault in it does not change the result, but can be reported before the event occurs.
enum class Faults { Reported, Ignored };
void Name(const Call& call, const SubscriptionForm& form, Faults faults = Faults::Ignored) {
  try {
    NameSubscription(call.record, call.text, form);
  } catch (const Platform::WindowsRuntimeError& error) {
    Outcome& outcome = call.record.outcome;
    if (faults == Faults::Ignored) return;
    *call.caller.problem = {L"request", L"will never run: ", error.message(), Reason::Unreadable};
    if (outcome.reason == Reason::None) outcome.reason = Reason::Unreadable;
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
    // The list has already changed, so running out of memory here does not change the result.
  }
}

std::uint32_t TrySubscribeToPackageEvent(const Call& call) {
  const auto log = Log(call.caller);
  Outcome& outcome = call.record.outcome;
  outcome = {Decision::Refused, Reason::StoreRefused};
  try {
    if (call.service.RegisterAppPackageEvent(call.text)) outcome = {Decision::Stored};
    return kSuccess;
  } catch (const Platform::WindowsRuntimeError& error) {
    log.LogError(kPackageRuntimeError, error.message().c_str(), error.code());
    *call.caller.problem = ProblemOf(error);
    outcome.reason = call.caller.problem->reason;
    if (error.code() == kAlreadySubscribed) return kRuntimeError;
    return static_cast<std::uint32_t>(error.code());
  } catch (const std::exception& error) {
    log.LogError(kPackageFailed, error.what());
    outcome = {Decision::Failed, Reason::Exception};
    if (dynamic_cast<const NotWatched*>(&error) != nullptr) {
      outcome = {Decision::Stored, Reason::NotWatched};
    }
    return kStandardException;
  }
}

}  // namespace

std::uint32_t GetLockdownMode(const Call& call) {
  return AddAnswer(call, L"sMode", QueryLockoutMode(call.caller.clientId));
}

std::uint32_t GetRegistrationState(const Call& call) {
  const auto state = RegistrationHelper().GetRegistrationState();
  const int told = ConsentStore::Apply(static_cast<int>(state));
  AddAnswer(call, L"registrationState", told);
  Log(call.caller).LogInfo(kStateIs, told);
  return kSuccess;
}

std::uint32_t SkipAutoLaunchCriteria(const Call& call) {
  const std::string keyName = SkipAutoLaunchCriteriaRequest(&call.request, call.caller);
  const bool marked = Qubo::QuboFacade().SkipAutoLaunchCriteria(keyName);
  Decide(call, marked, Decision::Done, Decision::Failed);
  return AddAnswer(call, L"setOperationOkay", marked);
}

std::uint32_t HasBeenInSMode(const Call& call) {
  return AddAnswer(call, L"hasBeenInSMode", call.service.HasBeenInSMode());
}

std::uint32_t ShouldAutoLaunchBeSkipped(const Call& call) {
  const std::string keyName = SkipAutoLaunchCriteriaRequest(&call.request, call.caller);
  const auto criteria =
      Qubo::QuboDataAccessFactory().CreateApplicationLaunchCriteriaDataAccess(keyName);
  return AddAnswer(call, L"skip", criteria->ShouldBeSkipped());
}

std::uint32_t IsUwpInstalled(const Call& call) {
  const std::wstring packageFamilyName = IsUwpInstalledRequest(&call.request, call.caller);
  return AddAnswer(call, L"installed", IsInstalledForConsoleUser(packageFamilyName, call.caller));
}

std::uint32_t GetExecutedMcAfeeStub(const Call& call) {
  Storage::CapDataStore store;
  const Storage::BsonDocument document = store.readDocument(kServiceDocument);
  const auto flag = document.Find(kExecutedStub);
  const bool launched = flag && flag->AsBoolean().value_or(false);
  return AddAnswer(call, L"launched", launched);
}

std::uint32_t SetExecutedMcAfeeStub(const Call& call) {
  bool launched = false;
  if (!ParseJsonValue(&call.request, &launched, call.caller)) return kFailed;
  Storage::CapDataStore store;
  const auto flag = Storage::BsonElement::Boolean(launched);
  if (store.mergeMember(kServiceDocument, kExecutedStub, flag)) return kSuccess;
  call.record.outcome = {Decision::Refused, Reason::StoreRefused};
  return kFailed;
}

std::uint32_t GetVersion(const Call& call) {
  AddAnswer(call, L"getVersion", rapidjson::StringRef(kVersion));
  Log(call.caller).LogInfo(kVersionIs, kVersion);
  Log(call.caller).LogInfo(kVersionDone);
  return kSuccess;
}

std::uint32_t CopyRegistration(const Call& call) {
  const bool copied = CopyRegistrationData(call.caller.clientId, *Logging::LogManager::GetLogger());
  Decide(call, copied, Decision::Done, Decision::Failed);
  return AddAnswer(call, L"copied", copied);
}

std::uint32_t LaunchAfterResume(const Call& call) {
  const auto reason = Qubo::QuboFacade().LaunchUwpWhenComingBackFromSleepIfNeeded();
  // If there was no reason to start the app, nothing was changed.
  if (reason != Qubo::QuboStartingPoint::None) call.record.outcome = {Decision::Done};
  return AddAnswer(call, L"startingPoint", static_cast<unsigned>(reason));
}

std::uint32_t LaunchCompanionApp(const Call& call) {
  const Qubo::QuboFacade facade;
  facade.RegisterApp();
  const bool launched = facade.LaunchUwpForOobe();
  Decide(call, launched, Decision::Ran, Decision::NotStarted);
  return AddAnswer(call, L"launched", launched);
}

std::uint32_t LaunchWithParameter(const Call& call) {
  const std::wstring parameter = LaunchQuboWithParameterRequest(&call.request, call.caller);
  if (call.caller.problem->key != nullptr) {
    Log(call.caller).LogError(kParameterUnreadable, kNoParameter);
    return kFailed;
  }
  const Qubo::QuboFacade facade;
  facade.RegisterApp();
  const bool launched = facade.LaunchUwpWithParameter(parameter);
  Decide(call, launched, Decision::Ran, Decision::NotStarted);
  return AddAnswer(call, L"launched", launched);
}

std::uint32_t SubscribeToPackageEvent(const Call& call) {
  const std::uint32_t result = TrySubscribeToPackageEvent(call);
  Name(call, kPackageForm);
  return result;
}

std::uint32_t SubscribeToPowerEvent(const Call& call) {
  call.service.RegisterPowerEvent(call.text, call.caller.clientId, &call.record.outcome);
  Name(call, kPowerForm, Faults::Reported);
  return kSuccess;
}

std::uint32_t SubscribeToZephraEvent(const Call& call) {
  call.service.RegisterZephraEvent(call.text, call.caller.clientId, &call.record.outcome);
  Name(call, kZephraForm, Faults::Reported);
  return kSuccess;
}

std::uint32_t UnsubscribeFromPowerEvent(const Call& call) {
  call.service.UnregisterPowerEvent(call.text, call.caller.clientId, &call.record.outcome);
  Name(call, kPowerForm);
  return kSuccess;
}

std::uint32_t UnsubscribeFromZephraEvent(const Call& call) {
  call.service.UnregisterZephraEvent(call.text, call.caller.clientId, &call.record.outcome);
  Name(call, kZephraForm);
  return kSuccess;
}

std::uint32_t ReportPolicyChange(const Call& call) {
  call.service.OnPolicyChangedEvent(call.text, call.caller.clientId, &call.record.outcome);
  return kSuccess;
}

}  // namespace Vx::Tessel::Server::Services::Orvane
