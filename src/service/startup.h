#pragma once

#include <memory>

namespace Vx::Tessel::Server::Services::Orvane {

struct ServiceState;

// Implements slot 8: schedules the AI-experience app and notifies the companion app, once per
// machine, that first-run setup is complete. Returns true if nothing is left to do or the store
// cannot be opened, and false to be called again later. Serialized within this process. Blocks
// until the companion app replies. Logs exceptions and returns false.
bool RunOobeEventTask(ServiceState& state) noexcept;

// The startup thread's body. Catches every exception. Destroying the service ends its waits.
void startup_task(const std::shared_ptr<ServiceState>& state) noexcept;

}  // namespace Vx::Tessel::Server::Services::Orvane
