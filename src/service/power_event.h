#pragma once

#include <cstdint>

namespace Vx::Tessel::Server::Services::Orvane {

// What slot 6 does with a power broadcast (PBT_ code): tells the host's app-service layer and
// replays the stored power subscriptions. Runs on the host's thread; a subscription's delay is
// waited out elsewhere. May throw what the store and the start of a thread throw.
void HandlePowerEvent(std::uint32_t eventType);

}  // namespace Vx::Tessel::Server::Services::Orvane
