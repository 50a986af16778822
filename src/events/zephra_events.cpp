#include "events/zephra_events.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr DeliveryTexts kTexts = {
    .delayUnreadable = L"Failed to retrieve delay parameter in ZephraEventManager::handle_event.",
    .noDelay = L"ZephraEventManager::handle_event delay: None",
    .delayStart = L"ZephraEventManager::handle_event delay: %d",
    .modernStandby = L"ZephraEventManager::handle_event receive Modern Standby enter event",
    .delayEnd = L"ZephraEventManager::handle_event delay end: %d",
    .discarded = L"ZephraEventManager::handle_event Event discarded, %d ms",
    .triggerRaised = L"ZephraEventManager::handle_event CustomTrigger raised: %u %s",
    .executed = L"ZephraEventManager::handle_event Executed: %s",
    .workerFailed =
        L"Failed to execute command in ZephraEventManager::handle_event. Message: %S, Status: %i",
    .registerRuntimeError =
        L"OrvaneService - RegisterZephraEvent threw hresult_error: Message: %s, Code: %i",
    .registerFailed = L"OrvaneService - RegisterZephraEvent threw %S",
    .unregisterRuntimeError =
        L"OrvaneService - UnregisterZephraEvent threw hresult_error: Message: %s, Code: %i",
    .unregisterFailed = L"OrvaneService - UnregisterZephraEvent threw %S",
};

}  // namespace

std::mutex ZephraEventManager::handle_event_mutex;

constinit const DeliveryKind kZephraEvents = {
    .kind = Records::Kind::Platform,
    .texts = kTexts,
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
