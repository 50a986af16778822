#pragma once

#include <functional>
#include <memory>

namespace Vx::Platform {

class ApiSets;
class AppServices;
class Clock;
class Com;
class DataProtection;
class Environment;
class Files;
class KernelObjects;
class LockdownPolicy;
class Oobe;
class Packages;
class Processes;
class Registry;
class Sessions;
class SystemTriggers;
class Threads;
class TrustProvider;
struct InstalledMachine;

// Everything outside the program, one member per capability. Never null. Each outlives this object.
struct Machine {
  ApiSets* apiSets = nullptr;
  AppServices* appServices = nullptr;
  Clock* clock = nullptr;
  Com* com = nullptr;
  DataProtection* dataProtection = nullptr;
  Environment* environment = nullptr;
  Files* files = nullptr;
  KernelObjects* kernelObjects = nullptr;
  LockdownPolicy* lockdownPolicy = nullptr;
  Oobe* oobe = nullptr;
  Packages* packages = nullptr;
  Processes* processes = nullptr;
  Registry* registry = nullptr;
  Sessions* sessions = nullptr;
  SystemTriggers* systemTriggers = nullptr;
  Threads* threads = nullptr;
  TrustProvider* trustProvider = nullptr;
};

// Returns the machine of the calling thread. For a worker, that is the one it was started under.
// For other threads, it is the one installed last, or the real one. Cheap. Never blocks.
const Machine& CurrentMachine() noexcept;

// Returns the real Windows, regardless of any MachineScope.
const Machine& WindowsMachine() noexcept;

// Replaces the current machine, for tests and the simulator, with a copy to which `change` was
// applied. Scopes nest. If a scope ends out of order, or while a worker started under it is still
// running, the process terminates with a message: the worker might use a destroyed capability.
class MachineScope {
 public:
  explicit MachineScope(const std::function<void(Machine&)>& change);
  MachineScope(const MachineScope&) = delete;
  MachineScope& operator=(const MachineScope&) = delete;
  ~MachineScope();

 private:
  std::unique_ptr<InstalledMachine> installed;
};

}  // namespace Vx::Platform
