#pragma once

#include <cstdint>

#include "service/command_call.h"

namespace Vx::Tessel::Server::Services::Orvane {

// The commands that act for the console user. Each adds its result to the response and returns 0. A
// standard exception is logged and becomes 0x20000002 without a result. The commands block while a
// package is deployed or a program is started.

// Id 8, "copied": copies the machine's registration data into the user's profile.
std::uint32_t CopyRegistration(const Call& call);

// Id 10, "startingPoint": starts the companion app if there is a reason to, and returns the reason.
std::uint32_t LaunchAfterResume(const Call& call);

// Id 11, "launched": registers the companion app if needed and starts it.
std::uint32_t LaunchCompanionApp(const Call& call);

// Id 17, "launched": like id 11, with a parameter. Starts nothing if the parameter is unreadable.
std::uint32_t LaunchWithParameter(const Call& call);

}  // namespace Vx::Tessel::Server::Services::Orvane
