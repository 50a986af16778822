#include "events/subscription_delivery.h"

#include <cstddef>
#include <exception>
#include <map>
#include <memory>
#include <new>
#include <system_error>
#include <utility>

#include "events/delivery_rules.h"
#include "host/logging.h"
#include "json/json_object.h"
#include "json/utf8.h"
#include "platform/clock.h"
#include "platform/kernel_objects.h"
#include "platform/machine.h"
#include "platform/system_services.h"
#include "platform/thread.h"
#include "platform/windows_runtime_error.h"
#include "records/record.h"
#include "storage/request_manager.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using Logging::LogManager;
using Records::Decision;
using Records::Outcome;
using Records::Reason;

constexpr wchar_t kDelayUnreadable[] = L"Failed to retrieve delay parameter in %S.";
constexpr wchar_t kNoDelay[] = L"%S delay: None";
constexpr wchar_t kModernStandby[] = L"%S receive Modern Standby enter event";
constexpr wchar_t kDelayEnd[] = L"%S delay end: %d";
constexpr wchar_t kDiscarded[] = L"%S Event discarded, %d ms";
constexpr wchar_t kTriggerRaised[] = L"%S CustomTrigger raised: %u %s";
constexpr wchar_t kExecuted[] = L"%S Executed: %s";
constexpr wchar_t kWorkerFailed[] = L"Failed to execute command in %S. Message: %S, Status: %i";
constexpr wchar_t kChangeRuntimeError[] =
    L"OrvaneService - %S threw hresult_error: Message: %s, Code: %i";
constexpr wchar_t kChangeFailed[] = L"OrvaneService - %S threw %S";
constexpr wchar_t kTriggerUnreadable[] = L"Failed to retrieve custom trigger GUID.";
constexpr char kUnknown[] = "an exception of an unknown kind";

constexpr wchar_t kStandbyNameTaken[] =
    L"Another program has given the name %s to an object that is not an event. "
    L"Modern Standby is not noticed until that object is gone.";

// Signaled by another component when the machine enters Modern Standby.
constexpr wchar_t kModernStandbyEvent[] = L"{CE7DC567-F47B-4A07-8489-C9DEB372B88F}";

constexpr std::int32_t kUnspecified = static_cast<std::int32_t>(0x80004005);

constinit Platform::TakenName standbyNameTaken;

const Logging::TraceLogger& Log() {
  return *LogManager::SetProvider(Logging::kComponentProvider);
}

int DelaySeconds(const DeliveryKind& kind, const EventCommand& command) {
  const auto seconds = LeadingInteger(command.DelayDeliverySec());
  if (!seconds) Log().LogError(kDelayUnreadable, kind.failing);
  return seconds.value_or(0);
}

// Counts one delivery against the process's limit, for the life of this object. Until StopWaiting
// is called, also counts it as one of its request's waiting deliveries.
class DeliveryPlace {
 public:
  DeliveryPlace(const DeliveryKind& kind, const std::wstring& request)
      : longText(request.size() > kShortRequest ? request.size() : 0) {
    const std::lock_guard guard(mutex);
    if (existing == kMostDeliveries || longTexts + longText > kMostLongText) {
      refusal = Reason::TooManyOfAll;
      return;
    }
    entry = Waiting().try_emplace({kind.kind, request}, 0).first;
    if (entry->second == kMostWaiting) {
      refusal = Reason::TooManyOfOne;
      return;
    }
    ++entry->second;
    ++existing;
    longTexts += longText;
  }
  DeliveryPlace(const DeliveryPlace&) = delete;
  DeliveryPlace& operator=(const DeliveryPlace&) = delete;
  ~DeliveryPlace() {
    if (refusal != Reason::None) return;
    StopWaiting();
    const std::lock_guard guard(mutex);
    --existing;
    longTexts -= longText;
  }

  // Returns the limit that was reached, or None.
  Reason Refusal() const { return refusal; }

  void StopWaiting() {
    if (!std::exchange(waits, false)) return;
    const std::lock_guard guard(mutex);
    if (--entry->second == 0) Waiting().erase(entry);
  }

 private:
  using Map = std::map<std::pair<Records::Kind, std::wstring>, int>;

  // Never destroyed, because a worker may outlive every service.
  static Map& Waiting() {
    static auto& counts = *new Map();
    return counts;
  }

  static inline std::mutex mutex;  // guards the counts; no other lock is taken while it is held
  static inline int existing = 0;
  static inline std::size_t longTexts = 0;
  const std::size_t longText;  // characters
  Map::iterator entry;
  Reason refusal = Reason::None;
  bool waits = true;
};

// The length of a wait in milliseconds, and what ended it early: Standby, ServiceEnded or None.
struct Waited {
  std::int64_t elapsed = 0;
  Reason early = Reason::None;
};

// Waits until Modern Standby begins, the service ends or the delay has passed.
Waited Wait(const DeliveryKind& kind, int seconds, const Platform::SharedHandle& stop) {
  Platform::Clock& clock = *Platform::CurrentMachine().clock;
  const auto length = DelayLength(seconds);
  const std::uint64_t start = clock.TickCount();
  const auto standby =
      Platform::CurrentMachine().kernelObjects->MakeManualEvent(kModernStandbyEvent);
  if (standbyNameTaken.IsNews(standby ? 0 : standby.Error())) {
    Log().LogWarning(kStandbyNameTaken, kModernStandbyEvent);
  }
  const Platform::WaitResult wait = standby && stop != nullptr
                                        ? clock.WaitForEither(stop.get(), standby->get(), length)
                                        : clock.Wait(standby ? standby->get() : stop.get(), length);
  if (wait.outcome == Platform::WaitOutcome::Signalled) {
    if (stop != nullptr && (!standby || wait.code == 0)) return {0, Reason::ServiceEnded};
    Log().LogInfo(kModernStandby, kind.handler);
    return {ElapsedUntilStandby(start, clock.TickCount()), Reason::Standby};
  }
  // A wait that fails, for example because there is no event, returns early, so this sleeps for the
  // rest of the delay.
  const std::chrono::milliseconds gone(clock.TickCount() - start);
  if (wait.outcome == Platform::WaitOutcome::Failed && gone < length) clock.Sleep(length - gone);
  return {ElapsedMilliseconds(start, clock.TickCount())};
}

Waited WaitDelay(const DeliveryKind& kind, int seconds, const Platform::SharedHandle& stop,
                 Records::Delivery& delivery) {
  if (seconds < 1) {
    Log().LogInfo(kNoDelay, kind.handler);
    return {};
  }
  Log().LogInfo(kind.delayStart, seconds);
  Waited waited;
  if (!IsTooLong(seconds)) {
    delivery.Waits(DelayLength(seconds));
    waited = Wait(kind, seconds, stop);
  }
  if (waited.early != Reason::ServiceEnded) Log().LogInfo(kDelayEnd, kind.handler, seconds);
  return waited;
}

std::wstring TriggerOf(const EventCommand& command) {
  try {
    return command.CustomTriggerGUID();
  } catch (const std::exception&) {
    Log().LogError(kTriggerUnreadable);
    return {};
  }
}

Reason WhyOverdue(int delay, Reason early) {
  if (delay < 0 || IsTooLong(delay)) return Reason::ImpossibleDelay;
  return early == Reason::None ? Reason::Late : early;
}

// Writes the last record under the lock, so that it follows the delivery's log lines.
void Deliver(const DeliveryKind& kind, const std::wstring& request, EventCommand& command,
             const Platform::SharedHandle& stop, DeliveryPlace& place,
             Records::Delivery& delivery) {
  const int delay = DelaySeconds(kind, command);
  const auto [elapsed, early] = WaitDelay(kind, delay, stop, delivery);
  if (early == Reason::ServiceEnded) return delivery.Ends({Decision::Dropped, early});
  const bool overdue = IsOverdue(delay, elapsed);
  const std::wstring trigger = TriggerOf(command);

  const auto guard = overdue ? std::unique_lock(*kind.handleEventMutex)
                             : TakeTurn(command, *kind.handleEventMutex);
  place.StopWaiting();
  if (overdue) {
    Log().LogInfo(kDiscarded, kind.handler, static_cast<int>(elapsed));
    delivery.Ends({Decision::Dropped, WhyOverdue(delay, early)});
  } else if (!trigger.empty()) {
    const std::uint32_t status = Platform::CurrentMachine().systemTriggers->Raise(trigger);
    Log().LogInfo(kTriggerRaised, kind.handler, status, request.c_str());
    const Outcome refused{Decision::NotRaised, Reason::Windows, status};
    delivery.Ends(status == 0 ? Outcome{Decision::Raised} : refused);
  } else {
    const Outcome outcome = command.Execute();
    Log().LogInfo(kExecuted, kind.handler, request.c_str());
    delivery.Ends(outcome);
  }
}

std::int32_t StatusOf(const std::exception& error) {
  const auto* system = dynamic_cast<const std::system_error*>(&error);
  return system != nullptr ? system->code().value() : kUnspecified;
}

// Logs only the status if memory runs out while converting the message.
void LogWorkerFailure(const DeliveryKind& kind,
                      const Platform::WindowsRuntimeError& error) noexcept {
  std::string message;
  try {
    message = Json::ToUtf8(error.message());
  } catch (const std::bad_alloc&) {
    message.clear();
  }
  Log().LogError(kWorkerFailed, kind.failing, message.c_str(), error.code());
}

// Returns null if the request is not a subscription of this kind, which is logged.
std::shared_ptr<const EventSubscription> Parse(const DeliveryKind& kind,
                                               const std::wstring& request, std::uint32_t event) {
  try {
    return std::make_shared<const EventSubscription>(request, kind.form);
  } catch (const Platform::WindowsRuntimeError& error) {
    LogWorkerFailure(kind, error);
    Records::Delivery(
        {.kind = kind.kind, .subscription = Records::SubscriptionHash(request), .number = event})
        .Ends(Records::FailedWith(error.code(), Reason::Unreadable));
    return nullptr;
  }
}

// The body of a worker. Catches every exception.
void Work(const DeliveryKind& kind, const std::wstring& request,
          const EventSubscription& subscription, const Platform::SharedHandle& stop,
          DeliveryPlace& place, Records::Delivery& delivery) noexcept {
  std::int32_t status = kUnspecified;
  try {
    return Deliver(kind, request, *subscription.Command(), stop, place, delivery);
  } catch (const Platform::WindowsRuntimeError& error) {
    LogWorkerFailure(kind, error);
    status = error.code();
  } catch (const std::exception& error) {
    status = StatusOf(error);
    Log().LogError(kWorkerFailed, kind.failing, error.what(), status);
  } catch (...) {
    Log().LogError(kWorkerFailed, kind.failing, kUnknown, status);
  }
  delivery.Ends(Records::FailedWith(status));
}

// Modifies a stored list. Logs failures and does not report them to the client.
template <typename Change>
Outcome ChangeList(const DeliveryKind& kind, const char* operation, Change&& change) noexcept {
  try {
    RequestManager manager(kServiceDocument, kind.form.list);
    return change(manager);
  } catch (const Platform::WindowsRuntimeError& error) {
    LogManager::GetLogger()->LogError(kChangeRuntimeError, operation, error.message().c_str(),
                                      error.code());
    const bool stored = error.code() == kAlreadySubscribed;
    return {Decision::Refused, stored ? Reason::AlreadyStored : Reason::EarlierLines};
  } catch (const std::exception& error) {
    LogManager::GetLogger()->LogError(kChangeFailed, operation, error.what());
    return {Decision::Failed, Reason::Exception};
  }
}

void StartDelivery(const DeliveryKind& kind, const std::wstring& request, std::uint32_t eventType,
                   const Platform::SharedHandle& stop) {
  auto subscription = Parse(kind, request, eventType);
  if (subscription == nullptr || subscription->Type() != eventType) return;
  auto delivery = std::make_shared<Records::Delivery>(
      Records::Record{.kind = kind.kind,
                      .subscription = Records::SubscriptionHash(request),
                      .target = subscription->Command()->Target(),
                      .number = eventType});
  // Checked before a worker starts, so that a dropped delivery costs no thread.
  auto place = std::make_shared<DeliveryPlace>(kind, request);
  if (place->Refusal() != Reason::None) {
    return delivery->Ends({Decision::Dropped, place->Refusal()});
  }
  try {
    Platform::StartDetached([&kind, request, subscription, stop, place, delivery] {
      Work(kind, request, *subscription, stop, *place, *delivery);
    });
  } catch (const std::exception& error) {
    delivery->Ends(Records::FailedWith(StatusOf(error), Reason::NoThread));
    throw;
  }
}

}  // namespace

EventSubscription::EventSubscription(const std::wstring& request, const SubscriptionForm& form) {
  const auto document = Json::JsonObject::Parse(request);
  eventType = Json::TruncateToUint32(document.GetNamedNumber(form.event));
  action = static_cast<EventAction>(Json::TruncateToUint32(document.GetNamedNumber(form.action)));
  command = CreateEventCommand(action, document.GetNamedObject(form.parameters));
  if (form.family != nullptr) family = document.GetNamedString(form.family);
}

void NameSubscription(Records::Record& record, const std::wstring& request,
                      const SubscriptionForm& form) {
  record.subscription = Records::SubscriptionHash(request);
  const EventSubscription subscription(request, form);
  record.target = subscription.Command()->Target();
  record.package = subscription.Family();
  if (record.kind == Records::Kind::Uninstall) record.number = subscription.Type();
}

Outcome RegisterSubscription(const DeliveryKind& kind, const std::wstring& request) noexcept {
  return ChangeList(kind, kind.subscribe, [&](RequestManager& manager) -> Outcome {
    if (manager.PersistRequest(request)) return {Decision::Stored};
    return {Decision::Refused, Reason::StoreRefused};
  });
}

Outcome UnregisterSubscription(const DeliveryKind& kind, const std::wstring& request) noexcept {
  using Removal = RequestManager::Removal;
  return ChangeList(kind, kind.unsubscribe, [&](RequestManager& manager) -> Outcome {
    const Removal removal = manager.RemoveRequest(request);
    if (removal == Removal::Removed) return {Decision::Removed};
    const bool unknown = removal == Removal::Unknown;
    return {Decision::Refused, unknown ? Reason::NotStored : Reason::StoreRefused};
  });
}

void FulfillSubscriptions(const DeliveryKind& kind, std::uint32_t eventType,
                          const Platform::SharedHandle& stop) {
  RequestManager manager(kServiceDocument, kind.form.list);
  manager.RegisterExistingRequests(
      [&](const std::wstring& request) { kind.handleEvent(request, nullptr, eventType, stop); },
      [](const std::wstring&, const Platform::WindowsRuntimeError&) {});
}

constinit const DeliveryKind kPowerEvents = {
    .kind = Records::Kind::Power,
    .handler = "PowerEventManager::handle_event",
    .failing = "PowerManager::handle_event",
    .delayStart = L"PowerEventManager::handle_event delay start: %d",
    .subscribe = "RegisterPowerEvent",
    .unsubscribe = "UnregisterPowerEvent",
    .form = kPowerForm,
    .handleEvent = &PowerEventManager::handle_event,
    .handleEventMutex = &PowerEventManager::handle_event_mutex,
};

constinit const DeliveryKind kZephraEvents = {
    .kind = Records::Kind::Platform,
    .handler = "ZephraEventManager::handle_event",
    .failing = "ZephraEventManager::handle_event",
    .delayStart = L"ZephraEventManager::handle_event delay: %d",
    .subscribe = "RegisterZephraEvent",
    .unsubscribe = "UnregisterZephraEvent",
    .form = kZephraForm,
    .handleEvent = &ZephraEventManager::handle_event,
    .handleEventMutex = &ZephraEventManager::handle_event_mutex,
};

void PowerEventManager::handle_event(const std::wstring& request,
                                     const CompletionHandler& /*completed*/,
                                     std::uint32_t eventType, const Platform::SharedHandle& stop) {
  StartDelivery(kPowerEvents, request, eventType, stop);
}

void ZephraEventManager::handle_event(const std::wstring& request,
                                      const CompletionHandler& /*completed*/,
                                      std::uint32_t eventType, const Platform::SharedHandle& stop) {
  StartDelivery(kZephraEvents, request, eventType, stop);
}

}  // namespace Vx::Tessel::Server::Services::Orvane
