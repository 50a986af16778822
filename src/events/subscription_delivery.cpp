#include "events/subscription_delivery.h"

#include <exception>
#include <optional>
#include <system_error>

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
#include "storage/request_manager.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using Logging::LogManager;

constexpr wchar_t kTriggerUnreadable[] = L"Failed to retrieve custom trigger GUID.";

// Signalled by another component when the machine enters Modern Standby.
constexpr wchar_t kModernStandbyEvent[] = L"{CE7DC567-F47B-4A07-8489-C9DEB372B88F}";

constexpr std::int32_t kUnspecified = static_cast<std::int32_t>(0x80004005);

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

// Waits for the delay or until Modern Standby begins, and returns the milliseconds that count.
std::int64_t WaitDelay(const DeliveryTexts& texts, int seconds) {
  if (seconds < 1) {
    Log().LogInfo(texts.noDelay);
    return 0;
  }
  Platform::Clock& clock = *Platform::CurrentMachine().clock;
  Log().LogInfo(texts.delayStart, seconds);
  const std::uint64_t start = clock.TickCount();
  std::int64_t elapsed = 0;
  {
    const auto standby =
        Platform::CurrentMachine().kernelObjects->MakeManualEvent(kModernStandbyEvent);
    auto outcome = Platform::WaitOutcome::TimedOut;
    if (standby) {
      outcome = clock.Wait(standby->get(), DelayLength(seconds)).outcome;
    } else {
      clock.Sleep(DelayLength(seconds));
    }
    if (outcome == Platform::WaitOutcome::Signalled) {
      Log().LogInfo(texts.modernStandby);
      elapsed = ElapsedUntilStandby(start, clock.TickCount());
    } else {
      elapsed = ElapsedMilliseconds(start, clock.TickCount());
    }
  }
  Log().LogInfo(texts.delayEnd, seconds);
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

void Deliver(const DeliveryKind& kind, const std::wstring& request, std::uint32_t eventType) {
  const auto subscription = kind.parse(request);
  if (subscription->Type() != eventType) return;

  const int delay = DelaySeconds(kind.texts, *subscription);
  const std::int64_t elapsed = WaitDelay(kind.texts, delay);
  const std::wstring trigger = TriggerOf(*subscription);

  const std::lock_guard guard(*kind.handleEventMutex);
  if (IsOverdue(delay, elapsed)) {
    Log().LogInfo(kind.texts.discarded, static_cast<int>(elapsed));
  } else if (!trigger.empty()) {
    const std::uint32_t status = Platform::CurrentMachine().systemTriggers->Raise(trigger);
    Log().LogInfo(kind.texts.triggerRaised, status, request.c_str());
  } else {
    subscription->Command()->Execute();
    Log().LogInfo(kind.texts.executed, request.c_str());
  }
}

std::int32_t StatusOf(const std::exception& error) {
  const auto* system = dynamic_cast<const std::system_error*>(&error);
  return system != nullptr ? system->code().value() : kUnspecified;
}

// The worker's boundary: whatever a stored text or its command throws ends here.
void Work(const DeliveryKind& kind, const std::wstring& request, std::uint32_t eventType) noexcept {
  try {
    Deliver(kind, request, eventType);
  } catch (const Platform::WindowsRuntimeError& error) {
    Log().LogError(kind.texts.workerFailed, Json::ToUtf8(error.message()).c_str(), error.code());
  } catch (const std::exception& error) {
    Log().LogError(kind.texts.workerFailed, error.what(), StatusOf(error));
  }
}

// Changes a stored list. Failures are logged, not reported to the client.
template <typename Change>
int ChangeList(const DeliveryKind& kind, const wchar_t* runtimeError, const wchar_t* failed,
               Change&& change) noexcept {
  try {
    RequestManager manager(kServiceDocument, kind.storeKey);
    change(manager);
  } catch (const Platform::WindowsRuntimeError& error) {
    LogManager::GetLogger()->LogError(runtimeError, error.message().c_str(), error.code());
  } catch (const std::exception& error) {
    LogManager::GetLogger()->LogError(failed, error.what());
  }
  return 0;
}

}  // namespace

EventSubscription::EventSubscription(const std::wstring& request, const SubscriptionForm& form) {
  const auto document = Json::JsonObject::Parse(request);
  eventType = Json::TruncateToUint32(document.GetNamedNumber(form.event));
  action = static_cast<EventAction>(Json::TruncateToUint32(document.GetNamedNumber(form.action)));
  command = CreateEventCommand(action, document.GetNamedObject(form.parameters));
}

int RegisterSubscription(const DeliveryKind& kind, const std::wstring& request) noexcept {
  return ChangeList(kind, kind.texts.registerRuntimeError, kind.texts.registerFailed,
                    [&](RequestManager& manager) { manager.PersistRequest(request); });
}

int UnregisterSubscription(const DeliveryKind& kind, const std::wstring& request) noexcept {
  return ChangeList(kind, kind.texts.unregisterRuntimeError, kind.texts.unregisterFailed,
                    [&](RequestManager& manager) {
                      const std::wstring before = manager.StoredRequests();
                      manager.RemoveRequest(request);
                      if (manager.StoredRequests() != before) return;
                      LogManager::GetLogger()->LogWarning(kind.texts.unregisterUnknown);
                    });
}

void FulfillSubscriptions(const DeliveryKind& kind, std::uint32_t eventType) {
  RequestManager manager(kServiceDocument, kind.storeKey);
  manager.RegisterExistingRequests(
      [&](const std::wstring& request) { kind.handleEvent(request, nullptr, eventType); },
      [](const std::wstring&, const Platform::WindowsRuntimeError&) {});
}

void StartDelivery(const DeliveryKind& kind, const std::wstring& request, std::uint32_t eventType) {
  Platform::StartDetached([&kind, request, eventType] { Work(kind, request, eventType); });
}

}  // namespace Vx::Tessel::Server::Services::Orvane
