#pragma once

namespace Vx::Tessel::Server::Services::Orvane {

struct ServiceState;

// The work of slot 8: schedules the AI-experience app and notifies the companion app, once per
// machine, that first-run set-up is over. Returns true when nothing is left to do, also when the
// store cannot be opened, and false to be called again later. Runs in this process are serialised.
// Blocks until the companion app replies. Logs what is thrown below and returns false.
bool RunOobeEventTask(ServiceState& state) noexcept;

}  // namespace Vx::Tessel::Server::Services::Orvane
