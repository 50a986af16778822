#pragma once

#include <memory>

namespace Vx::Tessel::Server::Services::Orvane {

struct ServiceState;

// The body of the start-up thread, and its boundary. Each of its waits ends when the service object
// is destroyed.
void RunStartupTask(const std::shared_ptr<ServiceState>& state) noexcept;

}  // namespace Vx::Tessel::Server::Services::Orvane
