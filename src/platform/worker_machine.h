#pragma once

#include <atomic>
#include <cstdint>

#include "platform/machine.h"

namespace Vx::Platform {

// An installed machine. It lives as long as its MachineScope or, for the real one, the module.
struct InstalledMachine {
  Machine machine;
  InstalledMachine* previous = nullptr;  // becomes current when this machine's scope ends
  // Like `previous`, for the scope's own thread if that is a worker. Otherwise null.
  InstalledMachine* workerBefore = nullptr;
  std::atomic<std::uint32_t> workers{0};
};

InstalledMachine& CurrentInstalled() noexcept;

// Makes this machine current for the calling worker, which is about to run its body.
void AdoptMachine(InstalledMachine& installed) noexcept;

}  // namespace Vx::Platform
