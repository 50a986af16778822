#pragma once

#include "host/logging.h"

namespace Vx::Tessel::Server::Services::Orvane {

// Stores the current lockdown mode as the first one, unless a first one is already stored. Does not
// log failures.
void SetFirstLockDownMode(const Logging::TraceLogger& logger);

// Starts `pathToExecute` with `arguments` as the service's account, if it is trusted.
bool LaunchExeFor10SSwitch(const wchar_t* pathToExecute, const wchar_t* arguments);

}  // namespace Vx::Tessel::Server::Services::Orvane
