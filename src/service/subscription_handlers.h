#pragma once

#include <cstdint>

#include "service/command_call.h"

namespace Vx::Tessel::Server::Services::Orvane {

// The commands that change or use the stored subscriptions. They add nothing to the response and
// never throw std::exception.

// Id 7: stores a package subscription and makes it live. On a Windows Runtime error, removes the
// request and returns the HRESULT. Returns 0x20000009 for a request that is already stored.
std::uint32_t SubscribeToPackageEvent(const Call& call);

// Ids 9 and 14. Both log failures and return 0.
std::uint32_t SubscribeToPowerEvent(const Call& call);
std::uint32_t SubscribeToZephraEvent(const Call& call);

// Ids 19 and 15. Both log failures and return 0.
std::uint32_t UnsubscribeFromPowerEvent(const Call& call);
std::uint32_t UnsubscribeFromZephraEvent(const Call& call);

// Id 16: raises the platform event for a policy change. Returns 0.
std::uint32_t ReportPolicyChange(const Call& call);

}  // namespace Vx::Tessel::Server::Services::Orvane
