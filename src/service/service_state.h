#pragma once

#include <atomic>

#include "companion/aurelo.h"
#include "host/logging.h"
#include "platform/unique_handle.h"

namespace Vx::Tessel::Server::Services::Orvane {

// The state that the service object and its background tasks share. They own it together: the tasks
// are detached and may outlive the service object, which signals both events when it is destroyed
// and does not wait. A null event makes every wait on it fail at once, and a task then ends.
struct ServiceState {
  // Creates both events and fetches the logger. Starts and reads nothing.
  ServiceState();
  ServiceState(const ServiceState&) = delete;
  ServiceState& operator=(const ServiceState&) = delete;
  ~ServiceState() = default;

  Logging::TraceLogger* logger = nullptr;
  std::atomic<bool> wakeupCheckDone{false};
  Platform::SharedHandle stopEvent;  // shared with deliveries that wait
  Platform::UniqueHandle sessionStopEvent;
  Aurelo::LaunchTimer aureloLaunchTimer;  // of the pending launch
};

}  // namespace Vx::Tessel::Server::Services::Orvane
