#include "events/power_events.h"

namespace Vx::Tessel::Server::Services::Orvane {

std::mutex PowerEventManager::handle_event_mutex;

constinit const DeliveryKind kPowerEvents = {
    .kind = Records::Kind::Power,
    .names = {.handler = "PowerEventManager::handle_event",
              .failing = "PowerManager::handle_event",
              .delayStart = L"PowerEventManager::handle_event delay start: %d",
              .subscribe = "RegisterPowerEvent",
              .unsubscribe = "UnregisterPowerEvent"},
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
