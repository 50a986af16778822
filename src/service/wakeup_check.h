#pragma once

#include <memory>

namespace Vx::Tessel::Server::Services::Orvane {

struct ServiceState;

inline constexpr char kWakeupCheckName[] =
    "Vx::Tessel::Server::Services::Orvane::OrvaneService::CheckToSendWakeupEvent";

// The wake-up thread's body. Catches every exception. Once per boot, waits up to twelve
// minutes for a real user and, if one signs in, raises the platform event. Stops with the service.
void CheckToSendWakeupEvent(const std::shared_ptr<ServiceState>& state) noexcept;

}  // namespace Vx::Tessel::Server::Services::Orvane
