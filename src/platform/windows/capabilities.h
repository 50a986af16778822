#pragma once

#include <memory>

#include "platform/machine.h"

namespace Vx::Platform {

// The real capabilities, one object each, constructed at the first call.
ApiSets& WindowsApiSets();
AppServices& WindowsAppServices();
Clock& WindowsClock();
Com& WindowsCom();
DataProtection& WindowsDataProtection();
Environment& WindowsEnvironment();
Files& WindowsFiles();
KernelObjects& WindowsKernelObjects();
LockdownLibraries& WindowsLockdownLibraries();
Oobe& WindowsOobe();
Packages& WindowsPackages();
Processes& WindowsProcesses();
Registry& WindowsRegistry();
Sessions& WindowsSessions();
SystemTriggers& WindowsSystemTriggers();
Threads& WindowsThreads();
TrustProvider& WindowsTrustProvider();

class DeferredLibrary;

// The trust provider over a library that stands for wintrust.dll and outlives it.
std::unique_ptr<TrustProvider> MakeTrustProvider(DeferredLibrary& wintrust);

}  // namespace Vx::Platform
