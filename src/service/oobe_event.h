#pragma once

namespace Vx::Tessel::Server::Services::Orvane {

struct ServiceState;

// What slot 8 does: schedules the AI-experience app and tells the companion app, once a machine,
// that first-run set-up is over. True when nothing is left to do, also when the store cannot be
// opened; false to be called again later. Runs of this process follow one another. Blocks for as
// long as the companion app takes to answer. What is thrown below is logged and answers false.
bool RunOobeEventTask(ServiceState& state) noexcept;

}  // namespace Vx::Tessel::Server::Services::Orvane
