#include "events/subscription_delivery.h"

#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

#include "events/delivery_rules.h"
#include "events/subscription_hash.h"
#include "host/logging.h"
#include "json/json_object.h"
#include "json/utf8.h"
#include "platform/clock.h"
#include "platform/kernel_objects.h"
#include "platform/machine.h"
#include "platform/system_services.h"
#include "platform/thread.h"
#include "platform/windows_runtime_error.h"
#include "storage/request_manager.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using Logging::LogManager;

constexpr wchar_t kTriggerUnreadable[] = L"Failed to retrieve custom trigger GUID.";
constexpr wchar_t kTooManyWait[] =
    L"%S - dropped, because %d deliveries of the same subscription wait already: %s";
constexpr wchar_t kTooManyExist[] =
    L"%S - dropped, because %d deliveries of all subscriptions exist already: %s";
constexpr wchar_t kServiceEnded[] = L"%S - dropped while it waited, because the service ends: %s";

constexpr wchar_t kLost[] = L"%S - this delivery is lost, because of \"%S\": %s";
constexpr char kUnknown[] = "an exception of an unknown kind";

constexpr wchar_t kStandbyNameTaken[] =
    L"Another program has given the name %s to an object that is not an event. "
    L"Modern Standby is not noticed until that object is gone.";

// Signalled by another component when the machine enters Modern Standby.
constexpr wchar_t kModernStandbyEvent[] = L"{CE7DC567-F47B-4A07-8489-C9DEB372B88F}";

constexpr std::int32_t kUnspecified = static_cast<std::int32_t>(0x80004005);

constinit Platform::TakenName standbyNameTaken;

const Logging::TraceLogger& Log() {
  return *LogManager::SetProvider(Logging::kComponentProvider);
}

std::optional<std::wstring> DelayText(const EventSubscription& subscription) {
  switch (subscription.Action()) {
    case EventAction::Launch:
      return dynamic_cast<const LaunchCommand&>(*subscription.Command()).DelayDeliverySec();
    case EventAction::AppServiceNotification:
      return dynamic_cast<const AppServiceNotificationCommand&>(*subscription.Command())
          .DelayDeliverySec();
  }
  return std::nullopt;
}

int DelaySeconds(const DeliveryTexts& texts, const EventSubscription& subscription) {
  const auto text = DelayText(subscription);
  if (!text) return 0;
  const auto seconds = LeadingInteger(*text);
  if (!seconds) Log().LogError(texts.delayUnreadable);
  return seconds.value_or(0);
}

// A bound on the deliveries at one time, and the line about one that it drops.
struct Limit {
  const wchar_t* dropped;
  int most;
};
constexpr Limit kOfOneText = {kTooManyWait, kMostWaiting};
constexpr Limit kOfAll = {kTooManyExist, kMostDeliveries};

// A place among the deliveries of the process, of every kind and service object, for as long as
// this object lives. Until StopWaiting it is also one among those of one stored text that wait.
class DeliveryPlace {
 public:
  DeliveryPlace(const DeliveryKind& kind, const std::wstring& request) {
    const std::lock_guard guard(mutex);
    if (existing == kOfAll.most) {
      reached = &kOfAll;
      return;
    }
    entry = Waiting().try_emplace({kind.storeKey, request}, 0).first;
    if (entry->second == kOfOneText.most) {
      reached = &kOfOneText;
      return;
    }
    ++entry->second;
    ++existing;
  }
  DeliveryPlace(const DeliveryPlace&) = delete;
  DeliveryPlace& operator=(const DeliveryPlace&) = delete;
  ~DeliveryPlace() {
    if (reached != nullptr) return;
    StopWaiting();
    const std::lock_guard guard(mutex);
    --existing;
  }

  // The limit for which there is no place, otherwise null.
  const Limit* Reached() const { return reached; }

  void StopWaiting() {
    if (!std::exchange(waits, false)) return;
    const std::lock_guard guard(mutex);
    if (--entry->second == 0) Waiting().erase(entry);
  }

 private:
  using Map = std::map<std::pair<const char*, std::wstring>, int>;

  // Never destroyed, because a worker may outlive every service.
  static Map& Waiting() {
    static auto& counts = *new Map();
    return counts;
  }

  static std::mutex mutex;  // guards the counts; no other lock is taken under it
  static int existing;
  Map::iterator entry;
  const Limit* reached = nullptr;
  bool waits = true;
};

std::mutex DeliveryPlace::mutex;
int DeliveryPlace::existing = 0;

// Waits until Modern Standby begins, the service ends or the delay is over. Returns the
// milliseconds that count, or nothing when the service ends.
std::optional<std::int64_t> Wait(const DeliveryTexts& texts, int seconds,
                                 const Platform::SharedHandle& stop) {
  Platform::Clock& clock = *Platform::CurrentMachine().clock;
  const std::uint64_t start = clock.TickCount();
  const auto standby =
      Platform::CurrentMachine().kernelObjects->MakeManualEvent(kModernStandbyEvent);
  if (standbyNameTaken.IsNews(standby ? 0 : standby.Error())) {
    Log().LogWarning(kStandbyNameTaken, kModernStandbyEvent);
  }
  Platform::WaitResult wait;
  if (standby && stop != nullptr) {
    wait = clock.WaitForEither(stop.get(), standby->get(), DelayLength(seconds));
  } else if (standby || stop != nullptr) {
    wait = clock.Wait(standby ? standby->get() : stop.get(), DelayLength(seconds));
  } else {
    clock.Sleep(DelayLength(seconds));
  }
  // A wait that fails says nothing about the time.
  if (wait.outcome == Platform::WaitOutcome::Failed) {
    const std::uint64_t passed = clock.TickCount() - start;
    const auto length = DelayLength(seconds);
    const std::chrono::milliseconds gone(passed);
    if ((standby || stop != nullptr) && gone < length) clock.Sleep(length - gone);
  }
  if (wait.outcome != Platform::WaitOutcome::Signalled) {
    return ElapsedMilliseconds(start, clock.TickCount());
  }
  const bool ended = stop != nullptr && (!standby || wait.code == 0);
  if (ended) return std::nullopt;
  Log().LogInfo(texts.modernStandby);
  return ElapsedUntilStandby(start, clock.TickCount());
}

// Waits out the delay of a delivery. Returns the milliseconds that count for it, or nothing when it
// is dropped, which is logged.
std::optional<std::int64_t> WaitDelay(const DeliveryKind& kind, const std::wstring& request,
                                      int seconds, const Platform::SharedHandle& stop) {
  if (seconds < 1) {
    Log().LogInfo(kind.texts.noDelay);
    return 0;
  }
  Log().LogInfo(kind.texts.delayStart, seconds);
  std::optional<std::int64_t> elapsed = 0;
  if (!IsTooLong(seconds)) elapsed = Wait(kind.texts, seconds, stop);
  if (!elapsed) {
    Log().LogWarning(kServiceEnded, kind.name, request.c_str());
    return std::nullopt;
  }
  Log().LogInfo(kind.texts.delayEnd, seconds);
  return elapsed;
}

std::wstring TriggerOf(const EventSubscription& subscription) {
  if (subscription.Action() != EventAction::AppServiceNotification) return {};
  try {
    return dynamic_cast<const AppServiceNotificationCommand&>(*subscription.Command())
        .CustomTriggerGUID();
  } catch (const std::exception&) {
    Log().LogError(kTriggerUnreadable);
    return {};
  }
}

void Deliver(const DeliveryKind& kind, const std::wstring& request,
             const EventSubscription& subscription, const Platform::SharedHandle& stop,
             DeliveryPlace& place) {
  const int delay = DelaySeconds(kind.texts, subscription);
  const std::optional<std::int64_t> elapsed = WaitDelay(kind, request, delay, stop);
  if (!elapsed) return;
  const std::wstring trigger = TriggerOf(subscription);

  const auto guard = IsOverdue(delay, *elapsed)
                         ? std::unique_lock(*kind.handleEventMutex)
                         : TakeTurn(*subscription.Command(), *kind.handleEventMutex);
  place.StopWaiting();
  if (IsOverdue(delay, *elapsed)) {
    Log().LogInfo(kind.texts.discarded, static_cast<int>(*elapsed));
  } else if (!trigger.empty()) {
    const std::uint32_t status = Platform::CurrentMachine().systemTriggers->Raise(trigger);
    Log().LogInfo(kind.texts.triggerRaised, status, request.c_str());
  } else {
    subscription.Command()->Execute();
    Log().LogInfo(kind.texts.executed, request.c_str());
  }
}

std::int32_t StatusOf(const std::exception& error) {
  const auto* system = dynamic_cast<const std::system_error*>(&error);
  return system != nullptr ? system->code().value() : kUnspecified;
}

// Called inside a catch block. Without memory for the message, the status alone is logged.
void LogWorkerFailure(const DeliveryTexts& texts,
                      const Platform::WindowsRuntimeError& error) noexcept {
  std::string message;
  try {
    message = Json::ToUtf8(error.message());
  } catch (const std::bad_alloc&) {
    message.clear();
  }
  Log().LogError(texts.workerFailed, message.c_str(), error.code());
}

// Reads the text of a request. Logs one that is not a subscription and returns null.
std::shared_ptr<const EventSubscription> Parse(const DeliveryKind& kind,
                                               const std::wstring& request) {
  try {
    return kind.parse(request);
  } catch (const Platform::WindowsRuntimeError& error) {
    LogWorkerFailure(kind.texts, error);
    return nullptr;
  }
}

// The worker's boundary: whatever the command throws ends here.
void Work(const DeliveryKind& kind, const std::wstring& request,
          const EventSubscription& subscription, const Platform::SharedHandle& stop,
          DeliveryPlace& place) noexcept {
  try {
    Deliver(kind, request, subscription, stop, place);
  } catch (const Platform::WindowsRuntimeError& error) {
    LogWorkerFailure(kind.texts, error);
  } catch (const std::exception& error) {
    Log().LogError(kind.texts.workerFailed, error.what(), StatusOf(error));
  } catch (...) {
    Log().LogError(kind.texts.workerFailed, kUnknown, kUnspecified);
  }
}

// Changes a stored list and returns whether that was done. Failures are logged, not reported to the
// client.
template <typename Change>
bool ChangeList(const DeliveryKind& kind, const wchar_t* runtimeError, const wchar_t* failed,
                Change&& change) noexcept {
  try {
    RequestManager manager(kServiceDocument, kind.storeKey);
    return change(manager);
  } catch (const Platform::WindowsRuntimeError& error) {
    LogManager::GetLogger()->LogError(runtimeError, error.message().c_str(), error.code());
  } catch (const std::exception& error) {
    LogManager::GetLogger()->LogError(failed, error.what());
  }
  return false;
}

}  // namespace

EventSubscription::EventSubscription(const std::wstring& request, const SubscriptionForm& form) {
  const auto document = Json::JsonObject::Parse(request);
  eventType = Json::TruncateToUint32(document.GetNamedNumber(form.event));
  action = static_cast<EventAction>(Json::TruncateToUint32(document.GetNamedNumber(form.action)));
  command = CreateEventCommand(action, document.GetNamedObject(form.parameters));
}

int RegisterSubscription(const DeliveryKind& kind, const std::wstring& request,
                         const wchar_t* clientId) noexcept {
  const bool stored =
      ChangeList(kind, kind.texts.registerRuntimeError, kind.texts.registerFailed,
                 [&](RequestManager& manager) { return manager.PersistRequest(request); });
  LogListChange(stored ? ListChange::Accepted : ListChange::Refused, request, clientId,
                kind.subscribe);
  return 0;
}

int UnregisterSubscription(const DeliveryKind& kind, const std::wstring& request,
                           const wchar_t* clientId) noexcept {
  const bool removed =
      ChangeList(kind, kind.texts.unregisterRuntimeError, kind.texts.unregisterFailed,
                 [&](RequestManager& manager) {
                   const RequestManager::Removal removal = manager.RemoveRequest(request);
                   if (removal == RequestManager::Removal::Unknown) {
                     LogManager::GetLogger()->LogWarning(kind.texts.unregisterUnknown);
                   }
                   return removal == RequestManager::Removal::Removed;
                 });
  LogListChange(removed ? ListChange::TakenBack : ListChange::Refused, request, clientId,
                kind.unsubscribe);
  return 0;
}

void FulfillSubscriptions(const DeliveryKind& kind, std::uint32_t eventType,
                          const Platform::SharedHandle& stop) {
  RequestManager manager(kServiceDocument, kind.storeKey);
  manager.RegisterExistingRequests(
      [&](const std::wstring& request) {
        try {
          kind.handleEvent(request, nullptr, eventType, stop);
        } catch (const std::exception& error) {
          Log().LogWarning(kLost, kind.name, error.what(), request.c_str());
          throw;
        }
      },
      [](const std::wstring&, const Platform::WindowsRuntimeError&) {});
}

void StartDelivery(const DeliveryKind& kind, const std::wstring& request, std::uint32_t eventType,
                   const Platform::SharedHandle& stop) {
  auto subscription = Parse(kind, request);
  if (subscription == nullptr || subscription->Type() != eventType) return;
  // Taken here, so that a delivery that is dropped costs no thread.
  auto place = std::make_shared<DeliveryPlace>(kind, request);
  if (const Limit* limit = place->Reached()) {
    Log().LogWarning(limit->dropped, kind.name, limit->most, request.c_str());
    return;
  }
  Platform::StartDetached(
      [&kind, request, subscription = std::move(subscription), stop, place = std::move(place)] {
        Work(kind, request, *subscription, stop, *place);
      });
}

}  // namespace Vx::Tessel::Server::Services::Orvane
