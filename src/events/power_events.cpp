#include "events/power_events.h"

#include <memory>

#include "storage/request_manager.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kEventTypeKey[] = L"powerEventType";
constexpr wchar_t kEventActionKey[] = L"eventAction";

constexpr DeliveryTexts kTexts = {
    .delayUnreadable = L"Failed to retrieve delay parameter in PowerManager::handle_event.",
    .noDelay = L"PowerEventManager::handle_event delay: None",
    .delayStart = L"PowerEventManager::handle_event delay start: %d",
    .modernStandby = L"PowerEventManager::handle_event receive Modern Standby enter event",
    .delayEnd = L"PowerEventManager::handle_event delay end: %d",
    .discarded = L"PowerEventManager::handle_event Event discarded, %d ms",
    .triggerRaised = L"PowerEventManager::handle_event CustomTrigger raised: %u %s",
    .executed = L"PowerEventManager::handle_event Executed: %s",
    .workerFailed =
        L"Failed to execute command in PowerManager::handle_event. Message: %S, Status: %i",
    .registerRuntimeError =
        L"OrvaneService - RegisterPowerEvent threw hresult_error: Message: %s, Code: %i",
    .registerFailed = L"OrvaneService - RegisterPowerEvent threw %S",
    .unregisterRuntimeError =
        L"OrvaneService - UnregisterPowerEvent threw hresult_error: Message: %s, Code: %i",
    .unregisterFailed = L"OrvaneService - UnregisterPowerEvent threw %S",
    .unregisterUnknown =
        L"OrvaneService - UnregisterPowerEvent: no stored subscription has exactly this text: %s",
};

constexpr DeliveryKind kKind = {
    .texts = kTexts,
    .storeKey = kPowerSubscriptions,
    .parse = [](const std::wstring& request) -> std::shared_ptr<const EventSubscription> {
      return std::make_shared<SubscribeForPowerEventRequest>(request);
    },
    .handleEventMutex = &PowerEventManager::handle_event_mutex,
};

}  // namespace

std::mutex PowerEventManager::handle_event_mutex;

SubscribeForPowerEventRequest::SubscribeForPowerEventRequest(const std::wstring& request)
    : EventSubscription(request, kEventTypeKey, kEventActionKey) {}

void PowerEventManager::handle_event(const std::wstring& request,
                                     const std::function<void(const std::wstring&)>& /*completed*/,
                                     std::uint32_t eventType) {
  StartDelivery(kKind, request, eventType);
}

int RegisterPowerSubscription(const std::wstring& request) noexcept {
  return RegisterSubscription(kKind, request);
}

int UnregisterPowerSubscription(const std::wstring& request) noexcept {
  return UnregisterSubscription(kKind, request);
}

void FulfillPowerSubscriptions(std::uint32_t eventType) {
  FulfillSubscriptions(kKind, &PowerEventManager::handle_event, eventType);
}

}  // namespace Vx::Tessel::Server::Services::Orvane
