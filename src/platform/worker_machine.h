#pragma once

#include <atomic>
#include <cstdint>

#include "platform/machine.h"

namespace Vx::Platform {

// A machine in use. A MachineScope's ends with the scope, the real one with the module.
struct InstalledMachine {
  Machine machine;
  InstalledMachine* previous = nullptr;  // becomes current when this machine's scope ends
  // The same for the scope's own thread if that is a worker, otherwise null.
  InstalledMachine* workerBefore = nullptr;
  std::atomic<std::uint32_t> workers{0};
};

InstalledMachine& CurrentInstalled() noexcept;

// Gives the calling worker, which is about to run its body, this machine.
void AdoptMachine(InstalledMachine& installed) noexcept;

}  // namespace Vx::Platform
