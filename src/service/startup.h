#pragma once

#include <memory>

namespace Vx::Tessel::Server::Services::Orvane {

struct ServiceState;

// The body of the start-up thread. Blocks for as long as the waits in it last; each ends when the
// service object goes. Throws nothing: it is the thread's boundary.
void RunStartupTask(const std::shared_ptr<ServiceState>& state) noexcept;

}  // namespace Vx::Tessel::Server::Services::Orvane
