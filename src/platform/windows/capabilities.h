#pragma once

#include <memory>

#include "platform/machine.h"

namespace Vx::Platform {

// The real capabilities, each constructed at its first call.
ApiSets& WindowsApiSets();
AppServices& WindowsAppServices();
Clock& WindowsClock();
Com& WindowsCom();
DataProtection& WindowsDataProtection();
Environment& WindowsEnvironment();
Files& WindowsFiles();
KernelObjects& WindowsKernelObjects();
LockdownPolicy& WindowsLockdownPolicy();
Oobe& WindowsOobe();
Packages& WindowsPackages();
Processes& WindowsProcesses();
Registry& WindowsRegistry();
Sessions& WindowsSessions();
SystemTriggers& WindowsSystemTriggers();
Threads& WindowsThreads();
TrustProvider& WindowsTrustProvider();

class DeferredLibrary;

// Creates the trust provider that uses `wintrust`, which represents wintrust.dll and outlives it.
std::unique_ptr<TrustProvider> MakeTrustProvider(DeferredLibrary& wintrust);

}  // namespace Vx::Platform
