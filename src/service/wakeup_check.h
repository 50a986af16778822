#pragma once

#include <memory>

namespace Vx::Tessel::Server::Services::Orvane {

struct ServiceState;

inline constexpr char kWakeupCheckName[] =
    "Vx::Tessel::Server::Services::Orvane::OrvaneService::CheckToSendWakeupEvent";

// The wake-up thread's body. Catches every exception. After Windows has booted, waits up to twelve
// minutes for a real user, then raises the platform event, once per boot. Stops with the service.
void CheckToSendWakeupEvent(const std::shared_ptr<ServiceState>& state) noexcept;

}  // namespace Vx::Tessel::Server::Services::Orvane
