#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "platform/machine.h"
#include "simulator/fault_injection.h"
#include "simulator/simulated_app_services.h"
#include "simulator/simulated_files.h"
#include "simulator/simulated_firmware.h"
#include "simulator/simulated_kernel_objects.h"
#include "simulator/simulated_packages.h"
#include "simulator/simulated_processes.h"
#include "simulator/simulated_registry.h"
#include "simulator/simulated_system.h"
#include "simulator/simulated_trust.h"
#include "simulator/simulated_users.h"
#include "simulator/timeline.h"
#include "simulator/virtual_clock.h"

namespace Vx::Simulator {

// A whole PC in memory, with one member per subsystem. Initially, no user is signed in, first-run
// setup has finished, no packages are installed, the registry is empty and the firmware has no
// born-on date. Everything else is real: files not added to the machine and their signatures, data
// protection, mutexes, events and threads.
//
//   SimulatedMachine machine;
//   Platform::MachineScope scope([&](Platform::Machine& platform) { machine.Install(platform); });
//
// Workers started under the scope must end before it does (see Drain).
class SimulatedMachine {
 public:
  SimulatedMachine();
  SimulatedMachine(const SimulatedMachine&) = delete;
  SimulatedMachine& operator=(const SimulatedMachine&) = delete;

  // Replaces the capabilities of `platform` with this machine's, wrapped by `faults`.
  void Install(Platform::Machine& platform);

  // Like Install, but shares neither named events nor signatures with the real machine.
  void InstallSealed(Platform::Machine& platform);

  // Enters or leaves Modern Standby. Requires InstallSealed.
  void SetStandby(bool entered);

  // Signs a file. If it does not exist, adds it to the files in memory.
  void Sign(const std::wstring& path, const SimulatedSignature& signature);

  // Simulates sleep: time passes, but pending waits do not advance.
  void SleepFor(VirtualClock::Duration length);

  // Advances time until no worker is left. Returns false if some are left after `limit`.
  bool Drain(VirtualClock::Duration limit = std::chrono::hours(24));

  VirtualClock clock;
  Timeline timeline{clock};
  SimulatedUsers users{timeline};
  SimulatedPackages packages{timeline, users, clock};
  SimulatedProcesses processes{timeline, users};
  SimulatedSystem system{timeline, clock};
  SimulatedAppServices appServices{timeline};
  SimulatedRegistry registry;
  SimulatedFiles files;
  SimulatedTrust trust{files};
  SimulatedKernelObjects kernelObjects;
  SimulatedFirmware firmware;
  FaultInjection faults;
};

}  // namespace Vx::Simulator
