#pragma once

#include <cstdint>

namespace Vx::Tessel::Server::Services::Orvane {

class OrvaneService;

// Handles a power broadcast (PBT_ code) for slot 6: notifies the host's app-service layer and
// replays the stored power subscriptions. When a machine that left S mode resumes, also refreshes
// the registration data and starts the switch software. Runs on the host's thread and does not wait
// for the subscriptions' delays. Throws whatever the store and its mutex throw.
void HandlePowerEvent(OrvaneService& service, std::uint32_t eventType);

}  // namespace Vx::Tessel::Server::Services::Orvane
