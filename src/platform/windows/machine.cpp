#include "platform/machine.h"

#include "platform/windows/capabilities.h"

namespace Vx::Platform {

namespace {

Machine Assemble() {
  Machine machine;
  machine.apiSets = &WindowsApiSets();
  machine.appServices = &WindowsAppServices();
  machine.clock = &WindowsClock();
  machine.com = &WindowsCom();
  machine.dataProtection = &WindowsDataProtection();
  machine.environment = &WindowsEnvironment();
  machine.files = &WindowsFiles();
  machine.kernelObjects = &WindowsKernelObjects();
  machine.lockdownLibraries = &WindowsLockdownLibraries();
  machine.oobe = &WindowsOobe();
  machine.packages = &WindowsPackages();
  machine.processes = &WindowsProcesses();
  machine.registry = &WindowsRegistry();
  machine.sessions = &WindowsSessions();
  machine.systemTriggers = &WindowsSystemTriggers();
  machine.threads = &WindowsThreads();
  machine.trustProvider = &WindowsTrustProvider();
  return machine;
}

}  // namespace

const Machine& WindowsMachine() noexcept {
  static const Machine machine = Assemble();
  return machine;
}

}  // namespace Vx::Platform
