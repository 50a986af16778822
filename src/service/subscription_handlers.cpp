#include "service/subscription_handlers.h"

#include <exception>

#include "events/package_event.h"
#include "events/package_event_manager.h"
#include "events/subscription_delivery.h"
#include "events/subscription_forms.h"
#include "host/logging.h"
#include "json/json_object.h"
#include "platform/windows_runtime_error.h"
#include "service/orvane_service.h"
#include "storage/request_manager.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using Records::Decision;
using Records::Outcome;
using Records::Reason;

constexpr wchar_t kPackageRuntimeError[] =
    L"OrvaneService - RegisterAppPackageEvent threw hresult_error: Message: %s, Code: %i";
constexpr wchar_t kPackageFailed[] = L"OrvaneService - RegisterAppPacakgeEvent threw %S";

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
