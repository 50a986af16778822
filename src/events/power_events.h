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

  // Starts a worker for one stored request and the code of a delivered event, and returns. A worker
  // that waits when `stop` is signalled logs that and ends. Never calls the completion handler,
  // because firing does not use a subscription up. Throws
  // std::system_error when no thread can be started.
  static void handle_event(const std::wstring& request,
                           const std::function<void(const std::wstring&)>& completed,
                           std::uint32_t eventType, const Platform::SharedHandle& stop = nullptr);

  // Serialises the decisions and commands of all power workers. They wait outside it.
  static std::mutex handle_event_mutex;
};

// For the functions of subscription_delivery.h.
extern const DeliveryKind kPowerEvents;

}  // namespace Vx::Tessel::Server::Services::Orvane
