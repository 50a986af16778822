#include "service/subscription_handlers.h"

#include <exception>

#include "events/package_event.h"
#include "events/package_event_manager.h"
#include "events/power_events.h"
#include "events/subscription_hash.h"
#include "events/zephra_events.h"
#include "host/logging.h"
#include "platform/windows_runtime_error.h"
#include "service/orvane_service.h"
#include "storage/request_manager.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr unsigned kSubscribeToPackageEvent = 7;  // the id of the command

constexpr wchar_t kPackageRuntimeError[] =
    L"OrvaneService - RegisterAppPackageEvent threw hresult_error: Message: %s, Code: %i";
constexpr wchar_t kPackageFailed[] = L"OrvaneService - RegisterAppPacakgeEvent threw %S";

RequestProblem ProblemOf(const Platform::WindowsRuntimeError& error) {
  switch (error.code()) {
    case kAlreadySubscribed:
      return {L"request", L"is subscribed already"};
    case kPackageNotInstalled:
      return {L"packageFamilyName", L"names a package that is not installed"};
    case kConsoleUserUnavailable:
      return {L"request", L"needs a user at the console"};
    case kUnknownCatalogEvent:
      return {L"catalogEvent", L"is unknown"};
    case kUnknownAction:
      return {L"catalogAction", L"is unknown"};
    default:
      return {L"request", L"failed: ", error.message()};
  }
}

// A power or platform subscription is stored unread, so a fault in it does not change the result.
// Report the fault now instead of when the event occurs.
template <typename Request>
void ReportUnreadable(const Call& call) {
  try {
    const Request readable(call.text);
  } catch (const Platform::WindowsRuntimeError& error) {
    *call.caller.problem = {L"request", L"will never run: ", error.message()};
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
    // The request is stored; without memory for a second look its result stays 0.
  }
}

// Subscribes and reports a failure. Sets `change` to the outcome for the list.
std::uint32_t TrySubscribeToPackageEvent(const Call& call, ListChange& change) {
  const auto log = Log(call.caller);
  change = ListChange::Refused;
  try {
    if (call.service.RegisterAppPackageEvent(call.text)) change = ListChange::Accepted;
    return kSuccess;
  } catch (const Platform::WindowsRuntimeError& error) {
    log.LogError(kPackageRuntimeError, error.message().c_str(), error.code());
    *call.caller.problem = ProblemOf(error);
    if (error.code() == kAlreadySubscribed) return kRuntimeError;
    return static_cast<std::uint32_t>(error.code());
  } catch (const std::exception& error) {
    log.LogError(kPackageFailed, error.what());
    if (dynamic_cast<const NotWatched*>(&error) != nullptr) change = ListChange::Accepted;
    return kStandardException;
  }
}

}  // namespace

std::uint32_t SubscribeToPackageEvent(const Call& call) {
  ListChange change{};
  const std::uint32_t result = TrySubscribeToPackageEvent(call, change);
  LogListChange(change, call.text, call.caller.clientId, kSubscribeToPackageEvent);
  return result;
}

std::uint32_t SubscribeToPowerEvent(const Call& call) {
  call.service.RegisterPowerEvent(call.text, call.caller.clientId);
  ReportUnreadable<SubscribeForPowerEventRequest>(call);
  return kSuccess;
}

std::uint32_t SubscribeToZephraEvent(const Call& call) {
  call.service.RegisterZephraEvent(call.text, call.caller.clientId);
  ReportUnreadable<SubscribeForZephraEventRequest>(call);
  return kSuccess;
}

std::uint32_t UnsubscribeFromPowerEvent(const Call& call) {
  call.service.UnregisterPowerEvent(call.text, call.caller.clientId);
  return kSuccess;
}

std::uint32_t UnsubscribeFromZephraEvent(const Call& call) {
  call.service.UnregisterZephraEvent(call.text, call.caller.clientId);
  return kSuccess;
}

std::uint32_t ReportPolicyChange(const Call& call) {
  call.service.OnPolicyChangedEvent(call.text, call.caller.clientId);
  return kSuccess;
}

}  // namespace Vx::Tessel::Server::Services::Orvane
