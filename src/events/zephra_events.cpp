#include "events/zephra_events.h"

namespace Vx::Tessel::Server::Services::Orvane {

std::mutex ZephraEventManager::handle_event_mutex;

constinit const DeliveryKind kZephraEvents = {
    .kind = Records::Kind::Platform,
    .names = {.handler = "ZephraEventManager::handle_event",
              .failing = "ZephraEventManager::handle_event",
              .delayStart = L"ZephraEventManager::handle_event delay: %d",
              .subscribe = "RegisterZephraEvent",
              .unsubscribe = "UnregisterZephraEvent"},
    .form = kZephraForm,
    .handleEvent = &ZephraEventManager::handle_event,
    .handleEventMutex = &ZephraEventManager::handle_event_mutex,
};

SubscribeForZephraEventRequest::SubscribeForZephraEventRequest(const std::wstring& request)
    : EventSubscription(request, kZephraForm) {}

void ZephraEventManager::handle_event(const std::wstring& request,
                                      const std::function<void(const std::wstring&)>& /*completed*/,
                                      std::uint32_t eventType, const Platform::SharedHandle& stop) {
  StartDelivery(kZephraEvents, request, eventType, stop);
}

}  // namespace Vx::Tessel::Server::Services::Orvane
