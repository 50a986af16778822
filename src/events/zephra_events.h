#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "events/subscription_delivery.h"

namespace Vx::Tessel::Server::Services::Orvane {

// A client's request to run a command on one of the service's own events.
class SubscribeForZephraEventRequest final : public EventSubscription {
 public:
  // Throws as EventSubscription does.
  explicit SubscribeForZephraEventRequest(const std::wstring& request);

  std::uint32_t EventType() const noexcept { return Type(); }
  EventAction ZephraEventAction() const noexcept { return Action(); }
};

// Delivers Zephra events as PowerEventManager delivers power events. Has its own lock, so that a
// power command and a Zephra command can run at the same time.
class ZephraEventManager {
 public:
  ZephraEventManager() = delete;

  static void handle_event(const std::wstring& request,
                           const std::function<void(const std::wstring&)>& completed,
                           std::uint32_t eventType, const Platform::SharedHandle& stop = nullptr);

  static std::mutex handle_event_mutex;
};

extern const DeliveryKind kZephraEvents;

}  // namespace Vx::Tessel::Server::Services::Orvane
