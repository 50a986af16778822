#pragma once

#include "host/logging.h"

namespace Vx::Tessel::Server::Services::Orvane {

// Records the lockdown mode of the machine's first start in the store, unless one is recorded.
// Failures leave the store as it was and are not logged.
void SetFirstLockDownMode(const Logging::TraceLogger& logger);

// Whether the machine was in S mode at its first start and is not now.
bool HasBeenInSMode();

// Starts the preloaded software that could not run in S mode, if it is there and trusted; true when
// it was started. Does not wait for it.
bool Launch10SSwitchSoftwares();

// Starts `pathToExecute` with `arguments` as the service itself, if it is trusted.
bool LaunchExeFor10SSwitch(const wchar_t* pathToExecute, const wchar_t* arguments);

// What a resume of a machine that left S mode brings about: refreshes the user's registration data
// and starts the switch software, whose outcome goes into the store. May throw what the store's
// mutex throws.
void DoSModeSwitchWork(const Logging::TraceLogger& logger);

}  // namespace Vx::Tessel::Server::Services::Orvane
