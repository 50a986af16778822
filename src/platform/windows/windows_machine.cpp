#include "platform/machine.h"
#include "platform/windows/capabilities.h"

namespace Vx::Platform {

namespace {

Machine Assemble() {
  Machine machine;
  machine.appServices = &WindowsAppServices();
  machine.clock = &WindowsClock();
  machine.dataProtection = &WindowsDataProtection();
  machine.environment = &WindowsEnvironment();
  machine.files = &WindowsFiles();
  machine.kernelObjects = &WindowsKernelObjects();
  machine.packages = &WindowsPackages();
  machine.registry = &WindowsRegistry();
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
