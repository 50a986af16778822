#pragma once

#include <memory>
#include <string>
#include <utility>

#include "companion/behaviors.h"
#include "companion/companion_apps.h"
#include "host/logging.h"
#include "platform/unique_handle.h"

namespace Vx::Tessel::Server::Services::Orvane::Aurelo {

// Starts the AI-experience app. It has no fallback.
class AureloLaunchBehavior final : public Base::ApplicationLaunchBehavior {
 public:
  static constexpr const wchar_t* package_family_name = kAurelo.packageFamilyName;
  static constexpr const wchar_t* alias = kAurelo.alias;

  bool Run(const std::wstring& parameter) const override;
  bool Run() const override { return Run({}); }
};

// The AI-experience app of the console user. Construct one per operation.
class AureloFacade {
 public:
  AureloFacade() : AureloFacade(std::make_unique<AureloLaunchBehavior>()) {}
  explicit AureloFacade(std::unique_ptr<Base::ApplicationLaunchBehavior> launch)
      : launchBehavior(std::move(launch)) {}

  bool LaunchUwpForOobe() const { return launchBehavior->Run(); }

 private:
  std::unique_ptr<Base::ApplicationLaunchBehavior> launchBehavior;
};

// The waitable timer of the last scheduled launch. Expired if that launch has finished or none was
// scheduled. The launch owns the timer, because the launch can outlive the service object.
using LaunchTimer = std::weak_ptr<void>;

// Schedules the single launch of the AI-experience app for an hour from now, unless the store
// records that it has been launched.
//
// Each call starts a detached worker with its own timer. The first worker whose timer fires marks
// the store and launches the app. Later workers find the mark and do nothing. If the mark cannot be
// stored, the app is not launched. Two workers whose timers fire at the same moment may both launch
// it. Stopping the service does not stop a worker. If the timer cannot be set, the worker launches
// the app at once.
//
// `logger` must live as long as the process. `aureloLaunchTimer` is set before the worker starts.
// Make one call at a time. Throws std::system_error if no thread can be created, and whatever the
// store throws if its mutex fails.
void ScheduleLaunch(const Logging::TraceLogger& logger, LaunchTimer& aureloLaunchTimer);

}  // namespace Vx::Tessel::Server::Services::Orvane::Aurelo
