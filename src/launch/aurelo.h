#pragma once

#include <memory>
#include <string>

#include "host/logging.h"
#include "launch/behaviors.h"
#include "platform/unique_handle.h"

namespace Vx::Tessel::Server::Services::Orvane::Aurelo {

// Starts the AI-experience app; there is no other to fall back on.
class AureloLaunchBehavior final : public Base::ApplicationLaunchBehavior {
 public:
  static const wchar_t* const package_family_name;
  static const wchar_t* const alias;

  bool Run(const std::wstring& parameter) const override;
  bool Run() const override;
};

// The AI-experience app of the console user. Built for one operation.
class AureloFacade {
 public:
  AureloFacade();
  explicit AureloFacade(std::unique_ptr<Base::ApplicationLaunchBehavior> launch);

  bool LaunchUwpForOobe() const;

 private:
  std::unique_ptr<Base::ApplicationLaunchBehavior> launchBehavior;
};

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
