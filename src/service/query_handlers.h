#pragma once

#include <cstdint>

#include "service/command_call.h"

namespace Vx::Tessel::Server::Services::Orvane {

// The commands that query or set one value. Each adds its result to the response and returns 0. On
// failure it returns 0x20000002 and adds nothing. If it throws a standard exception, Dispatch logs
// that and returns the same code.

// Id 0, "sMode": the lockdown mode of Windows.
std::uint32_t GetLockdownMode(const Call& call);

// Id 2, "registrationState": the owner's registration state, or 0 if policy forbids sharing it.
std::uint32_t GetRegistrationState(const Call& call);

// Id 3, "setOperationOkay": marks the reason "keyName" for an automatic launch as used.
std::uint32_t SkipAutoLaunchCriteria(const Call& call);

// Id 4, "hasBeenInSMode": whether the machine has left S mode since its first start.
std::uint32_t HasBeenInSMode(const Call& call);

// Id 5, "skip": whether the reason "keyName" is marked as used.
std::uint32_t ShouldAutoLaunchBeSkipped(const Call& call);

// Id 6, "installed": whether the console user has a package of the requested family.
std::uint32_t IsUwpInstalled(const Call& call);

// Ids 12 and 13, "launched": get and set the flag that the switch software has been started.
std::uint32_t GetExecutedMcAfeeStub(const Call& call);
std::uint32_t SetExecutedMcAfeeStub(const Call& call);

// Id 22, "getVersion".
std::uint32_t GetVersion(const Call& call);

}  // namespace Vx::Tessel::Server::Services::Orvane
