#pragma once

#include <atomic>
#include <cstdint>

#include "platform/machine.h"

namespace Vx::Platform {

// A machine in use, and how many workers run under it. The one of a MachineScope lives as long as
// the scope, the real one for ever.
struct InstalledMachine {
  Machine machine;
  InstalledMachine* previous = nullptr;  // what is current again when this one's scope ends
  // The same for the scope's own thread, when that is a worker; null: it is none.
  InstalledMachine* workerBefore = nullptr;
  std::atomic<std::uint32_t> workers{0};
};

// What CurrentMachine() answers from.
InstalledMachine& CurrentInstalled() noexcept;

// From here on the calling thread, a worker that is about to run its body, has this machine.
void AdoptMachine(InstalledMachine& installed) noexcept;

}  // namespace Vx::Platform
