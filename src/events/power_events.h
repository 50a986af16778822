#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "events/subscription_delivery.h"

namespace Vx::Tessel::Server::Services::Orvane {

// A client's request to run a command on a power event.
class SubscribeForPowerEventRequest final : public EventSubscription {
 public:
  // Throws as EventSubscription does.
  explicit SubscribeForPowerEventRequest(const std::wstring& request);

  std::uint32_t PowerEventType() const noexcept { return Type(); }
  EventAction PowerEventAction() const noexcept { return Action(); }
};

// Delivers power events. Thread-safe.
class PowerEventManager {
 public:
  PowerEventManager() = delete;

  // Delivers the event with this code to one stored request: see StartDelivery. Never calls the
  // completion handler, because a power subscription stays stored after its event.
  static void handle_event(const std::wstring& request,
                           const std::function<void(const std::wstring&)>& completed,
                           std::uint32_t eventType, const Platform::SharedHandle& stop = nullptr);

  // Serializes the decisions and commands of all power workers, but not their delays.
  static std::mutex handle_event_mutex;
};

extern const DeliveryKind kPowerEvents;

}  // namespace Vx::Tessel::Server::Services::Orvane
