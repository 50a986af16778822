#pragma once

#include <cstdint>

#include "service/command_call.h"

namespace Vx::Tessel::Server::Services::Orvane {

// The commands that work on stored subscriptions, by the text that the client sent. None adds to
// the response. None throws std::exception.

// Id 7: stores a package subscription and makes it live. A Windows Runtime error takes the request
// off the list again, unless it was stored before, and its HRESULT is the result.
std::uint32_t SubscribeToPackageEvent(const Call& call);

// Ids 9 and 14. Always 0: failures are logged.
std::uint32_t SubscribeToPowerEvent(const Call& call);
std::uint32_t SubscribeToZephraEvent(const Call& call);

// Ids 19 and 15. Always 0: failures are logged.
std::uint32_t UnsubscribeFromPowerEvent(const Call& call);
std::uint32_t UnsubscribeFromZephraEvent(const Call& call);

// Id 16: raises the platform event of a changed policy. Always 0.
std::uint32_t ReportPolicyChange(const Call& call);

}  // namespace Vx::Tessel::Server::Services::Orvane
