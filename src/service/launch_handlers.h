#pragma once

#include <cstdint>

#include "service/command_call.h"

namespace Vx::Tessel::Server::Services::Orvane {

// The commands that act for the console user. Each puts its answer under "result" of `response` and
// answers 0; a standard exception is logged and answered with 0x20000002 and no result. They block
// for as long as the deployment of a package or the start of a program takes.

// Id 8, "copied": copies the machine's registration data into the user's profile.
std::uint32_t CopyRegistration(const Call& call);

// Id 10, "startingPoint": starts the companion app if there is a reason to, and answers which.
std::uint32_t LaunchAfterResume(const Call& call);

// Id 11, "launched": registers the companion app if needed and starts it.
std::uint32_t LaunchCompanionApp(const Call& call);

// Id 17, "launched": the same with a parameter. Without a readable one nothing is started.
std::uint32_t LaunchWithParameter(const Call& call);

}  // namespace Vx::Tessel::Server::Services::Orvane
