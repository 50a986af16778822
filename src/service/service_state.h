#pragma once

#include <atomic>

#include "companion/aurelo.h"
#include "host/logging.h"
#include "platform/kernel_objects.h"
#include "platform/unique_handle.h"

namespace Vx::Tessel::Server::Services::Orvane {

// The state shared by the service object and its background tasks. The tasks are detached and may
// outlive the service object, whose destructor signals both events and does not wait. If an event
// is null, every wait on it fails at once and its task ends.
struct ServiceState {
  Logging::TraceLogger* logger = Logging::LogManager::GetLogger();
  std::atomic<bool> wakeupCheckDone{false};
  // Shared with waiting deliveries.
  Platform::SharedHandle stopEvent = Platform::Share(Platform::MakeUnnamedEvent());
  Platform::UniqueHandle sessionStopEvent = Platform::MakeUnnamedEvent();
  Aurelo::LaunchTimer aureloLaunchTimer;  // of the pending launch
};

}  // namespace Vx::Tessel::Server::Services::Orvane
