#pragma once

#include <memory>

#include "host/logging.h"
#include "platform/unique_handle.h"

namespace Vx::Tessel::Server::Services::Orvane::Aurelo {

// The waitable timer of the delayed launch that was scheduled last; expired when that launch is
// over or none was scheduled. The launch owns the timer, because it outlives the service object.
using LaunchTimer = std::weak_ptr<void>;

// Schedules the one launch of the AI-experience app for an hour from now, unless it has been made.
//
// Each call starts a detached worker with a timer of its own; the first whose hour is over takes
// the mark in the store and launches, later ones find the mark (two whose hours end at the same
// moment may both launch). A worker is not ended by a stop of
// the service. A timer that cannot be set does not hold the launch up: it is made at once.
//
// `logger` lives as long as the process. `aureloLaunchTimer` is written before the worker starts.
// Calls are made one at a time. Throws std::system_error when no thread can be made, and what the
// store throws when its mutex fails.
void ScheduleLaunch(const Logging::TraceLogger& logger, LaunchTimer& aureloLaunchTimer);

}  // namespace Vx::Tessel::Server::Services::Orvane::Aurelo
