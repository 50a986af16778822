#pragma once

#include <cstdint>

#include "service/command_call.h"

namespace Vx::Tessel::Server::Services::Orvane {

// The commands that answer a question or set one value. Each puts its answer under "result" of
// `response` and answers 0; when it cannot, it logs why and answers 0x20000002 with `response` left
// as it was. A null document is such a failure. None throws std::exception.

// Id 0, "sMode": the lockdown mode of Windows.
std::uint32_t GetLockdownMode(const Call& call);

// Id 2, "registrationState": the owner's registration as far as the consent policy lets it be told.
std::uint32_t GetRegistrationState(const Call& call);

// Id 3, "setOperationOkay": marks the reason "keyName" for an automatic launch as used.
std::uint32_t SkipAutoLaunchCriteria(const Call& call);

// Id 4, "hasBeenInSMode": whether the machine has left S mode since its first start.
std::uint32_t HasBeenInSMode(const Call& call);

// Id 5, "skip": whether the reason "keyName" is marked as used.
std::uint32_t ShouldAutoLaunchBeSkipped(const Call& call);

// Id 6, "installed": whether the package family of the request is there for the console user.
std::uint32_t IsUwpInstalled(const Call& call);

// Ids 12 and 13: the flag that says whether the switch software was started.
std::uint32_t GetExecutedMcAfeeStub(const Call& call);
std::uint32_t SetExecutedMcAfeeStub(const Call& call);

// Id 22, "getVersion".
std::uint32_t GetVersion(const Call& call);

}  // namespace Vx::Tessel::Server::Services::Orvane
