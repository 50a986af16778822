#pragma once

#include <memory>

namespace Vx::Tessel::Server::Services::Orvane {

struct ServiceState;

// The qualified name of the check, as its log lines have it.
inline constexpr char kWakeupCheckName[] =
    "Vx::Tessel::Server::Services::Orvane::OrvaneService::CheckToSendWakeupEvent";

// The body of the wake-up thread: after a new boot of Windows, waits up to twelve minutes for a
// real user and then raises the platform event for it, once a boot. Ends within five seconds of the
// service object. Throws nothing: it is the thread's boundary.
void RunWakeupCheck(const std::shared_ptr<ServiceState>& state) noexcept;

}  // namespace Vx::Tessel::Server::Services::Orvane
