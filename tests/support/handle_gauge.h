#pragma once

#include <cstdint>

namespace Vx::Tests {

// How far this process's handle table is filled: grows when handles stay open. The emulator leaves
// GetProcessHandleCount's answer untouched, but hands out the lowest free handle value, so the
// highest of some fresh handles tells.
std::uintptr_t HandleGauge();

}  // namespace Vx::Tests
