#pragma once

#include <cstdint>

namespace Vx::Tessel::Server::Services::Orvane {

class OrvaneService;

// What slot 6 does with a power broadcast (PBT_ code): notifies the host's app-service layer,
// replays the stored power subscriptions and, at a resume of a machine that left S mode, refreshes
// the registration data and starts the switch software. Runs on the host's thread; a subscription's
// delay is waited out elsewhere. May throw what the store and its mutex throw.
void HandlePowerEvent(OrvaneService& service, std::uint32_t eventType);

}  // namespace Vx::Tessel::Server::Services::Orvane
