#pragma once

#include <memory>

namespace Vx::Tessel::Server::Services::Orvane {

struct ServiceState;

// The startup thread's body. Catches every exception. Destroying the service ends its waits.
void startup_task(const std::shared_ptr<ServiceState>& state) noexcept;

}  // namespace Vx::Tessel::Server::Services::Orvane
