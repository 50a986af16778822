#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "events/subscription_delivery.h"

namespace Vx::Tessel::Server::Services::Orvane {

// A client's wish to have a command run at a power event.
class SubscribeForPowerEventRequest final : public EventSubscription {
 public:
  // Throws Platform::WindowsRuntimeError: the JSON layer's, or the one of an unknown action.
  explicit SubscribeForPowerEventRequest(const std::wstring& request);

  std::uint32_t PowerEventType() const noexcept { return Type(); }
  EventAction PowerEventAction() const noexcept { return Action(); }
};

// Delivers power events. Any thread.
class PowerEventManager {
 public:
  PowerEventManager() = delete;

  // Hands one stored request and the code of a delivered event to a worker and returns. The
  // completion handler is never called: firing does not use a subscription up. Throws
  // std::system_error when no thread can be started.
  static void handle_event(const std::wstring& request,
                           const std::function<void(const std::wstring&)>& completed,
                           std::uint32_t eventType);

  // Serialises the decisions and commands of all power workers; their waits happen outside it.
  static std::mutex handle_event_mutex;
};

// Stored and delivered as subscription_delivery.h says.
extern const DeliveryKind kPowerEvents;

}  // namespace Vx::Tessel::Server::Services::Orvane
