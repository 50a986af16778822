#pragma once

#include <cstdint>

namespace Vx::Tessel::Server::Services::Orvane {

class OrvaneService;

// Handles a power broadcast (PBT_ code) for slot 6: notifies the host's app-service layer, replays
// the stored power subscriptions and, at a resume of a machine that left S mode, refreshes the
// registration data and starts the switch software. Runs on the host's thread and does not wait for
// subscriptions' delays. Throws what the store and its mutex throw.
void HandlePowerEvent(OrvaneService& service, std::uint32_t eventType);

}  // namespace Vx::Tessel::Server::Services::Orvane
