#pragma once

namespace Vx::Platform {

class ApiSets;
class AppServices;
class Clock;
class Com;
class DataProtection;
class Environment;
class Files;
class KernelObjects;
class LockdownLibraries;
class Oobe;
class Packages;
class Processes;
class Registry;
class Sessions;
class SystemTriggers;
class Threads;
class TrustProvider;

// The real capabilities, one object each, made at the first call and never destroyed.
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

}  // namespace Vx::Platform
