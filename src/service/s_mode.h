#pragma once

#include "host/logging.h"

namespace Vx::Tessel::Server::Services::Orvane {

// Records the lockdown mode of the machine's first start in the store, unless one is recorded.
// Failures leave the store as it was and are not logged.
void SetFirstLockDownMode(const Logging::TraceLogger& logger);

// Starts `pathToExecute` with `arguments` as the service itself, if it is trusted.
bool LaunchExeFor10SSwitch(const wchar_t* pathToExecute, const wchar_t* arguments);

}  // namespace Vx::Tessel::Server::Services::Orvane
