#pragma once

#include <atomic>

#include "host/logging.h"
#include "launch/aurelo_schedule.h"
#include "platform/unique_handle.h"

namespace Vx::Tessel::Server::Services::Orvane {

// What the service object and its background tasks work with. They own it together: the tasks are
// detached and may outlive the service object, which signals both events when it goes and waits for
// nobody. A null event makes every wait on it fail at once, which a task takes as the stop.
struct ServiceState {
  // Makes both events and fetches the logger; starts nothing and reads nothing.
  ServiceState();
  ServiceState(const ServiceState&) = delete;
  ServiceState& operator=(const ServiceState&) = delete;
  ~ServiceState() = default;

  Logging::TraceLogger* logger = nullptr;
  std::atomic<bool> wakeupCheckDone{false};
  Platform::UniqueHandle stopEvent;
  Platform::UniqueHandle sessionStopEvent;
  Aurelo::LaunchTimer aureloLaunchTimer;  // of the pending delayed launch
};

}  // namespace Vx::Tessel::Server::Services::Orvane
