#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "events/subscription_delivery.h"

namespace Vx::Tessel::Server::Services::Orvane {

// A client's request to run a command at a power event.
class SubscribeForPowerEventRequest final : public EventSubscription {
 public:
  // Throws Platform::WindowsRuntimeError with a code of the JSON layer or kUnknownAction.
  explicit SubscribeForPowerEventRequest(const std::wstring& request);

  std::uint32_t PowerEventType() const noexcept { return Type(); }
  EventAction PowerEventAction() const noexcept { return Action(); }
};

// Delivers power events. Any thread.
class PowerEventManager {
 public:
  PowerEventManager() = delete;

  // Delivers the event with this code to one stored request: see StartDelivery. Never calls the
  // completion handler, because firing does not use a subscription up.
  static void handle_event(const std::wstring& request,
                           const std::function<void(const std::wstring&)>& completed,
                           std::uint32_t eventType, const Platform::SharedHandle& stop = nullptr);

  // Serialises the decisions and commands of all power workers. They wait outside it.
  static std::mutex handle_event_mutex;
};

// For the functions of subscription_delivery.h.
extern const DeliveryKind kPowerEvents;

}  // namespace Vx::Tessel::Server::Services::Orvane
