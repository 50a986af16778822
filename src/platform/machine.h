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
class LockdownLibraries;
class Oobe;
class Packages;
class Processes;
class Registry;
class Sessions;
class SystemTriggers;
class Threads;
class TrustProvider;
struct InstalledMachine;

// Everything outside the program, one capability a member. The capabilities outlive the machine
// that names them; none is ever null.
struct Machine {
  ApiSets* apiSets = nullptr;
  AppServices* appServices = nullptr;
  Clock* clock = nullptr;
  Com* com = nullptr;
  DataProtection* dataProtection = nullptr;
  Environment* environment = nullptr;
  Files* files = nullptr;
  KernelObjects* kernelObjects = nullptr;
  LockdownLibraries* lockdownLibraries = nullptr;
  Oobe* oobe = nullptr;
  Packages* packages = nullptr;
  Processes* processes = nullptr;
  Registry* registry = nullptr;
  Sessions* sessions = nullptr;
  SystemTriggers* systemTriggers = nullptr;
  Threads* threads = nullptr;
  TrustProvider* trustProvider = nullptr;
};

// The machine of the calling thread: the one that its worker was started under, else the one
// installed last, else the real one. Cheap, never blocks.
const Machine& CurrentMachine() noexcept;

// The real Windows, whatever is installed.
const Machine& WindowsMachine() noexcept;

// Puts another machine in the place of the current one, for tests and the simulator.
//
// The new machine is a copy of the current one with `change` applied, so that one capability can be
// replaced and the others stay. Scopes nest. One that ends out of order, or while a worker started
// under it still runs, ends the process with a message: what it named may be gone.
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
