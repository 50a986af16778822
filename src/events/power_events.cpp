#include "events/power_events.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

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
};

}  // namespace

std::mutex PowerEventManager::handle_event_mutex;

constinit const DeliveryKind kPowerEvents = {
    .kind = Records::Kind::Power,
    .texts = kTexts,
    .form = kPowerForm,
    .handleEvent = &PowerEventManager::handle_event,
    .handleEventMutex = &PowerEventManager::handle_event_mutex,
};

SubscribeForPowerEventRequest::SubscribeForPowerEventRequest(const std::wstring& request)
    : EventSubscription(request, kPowerForm) {}

void PowerEventManager::handle_event(const std::wstring& request,
                                     const std::function<void(const std::wstring&)>& /*completed*/,
                                     std::uint32_t eventType, const Platform::SharedHandle& stop) {
  StartDelivery(kPowerEvents, request, eventType, stop);
}

}  // namespace Vx::Tessel::Server::Services::Orvane
