#pragma once

#include <atomic>
#include <memory>

#include "companion/aurelo.h"
#include "host/logging.h"
#include "platform/kernel_objects.h"
#include "platform/unique_handle.h"

namespace Vx::Tessel::Server::Services::Orvane {

// The state shared by the service object and its background tasks. The tasks are detached and may
// outlive the service object, whose destructor signals both events and does not wait. If an event
// is null, every wait on it fails at once and its task ends.
struct ServiceState {
  std::atomic<bool> wakeupCheckDone{false};
  // Shared with waiting deliveries.
  Platform::SharedHandle stopEvent = Platform::MakeUnnamedEvent();
  Platform::UniqueHandle sessionStopEvent = Platform::MakeUnnamedEvent();
  Logging::TraceLogger* logger = Logging::LogManager::GetLogger();
  Aurelo::LaunchTimer aureloLaunchTimer;  // of the pending launch
};

// Implements slot 8: schedules the AI-experience app and notifies the companion app, once per
// machine, that first-run setup is complete. Returns true if nothing is left to do or the store
// cannot be opened, and false to be called again later. Serialized within this process. Blocks
// until the companion app replies. Logs exceptions and returns false.
bool RunOobeEventTask(ServiceState& state) noexcept;

// The startup thread's body. Catches every exception. Destroying the service ends its waits.
void startup_task(const std::shared_ptr<ServiceState>& state) noexcept;

}  // namespace Vx::Tessel::Server::Services::Orvane
