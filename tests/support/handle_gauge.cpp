#include "support/handle_gauge.h"

#include <algorithm>
#include <array>

#include <windows.h>

namespace Vx::Tests {

std::uintptr_t HandleGauge() {
  std::array<HANDLE, 64> fresh{};
  std::uintptr_t highest = 0;
  for (HANDLE& handle : fresh) {
    handle = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    highest = std::max(highest, reinterpret_cast<std::uintptr_t>(handle));
  }
  for (HANDLE handle : fresh) {
    if (handle != nullptr) CloseHandle(handle);
  }
  return highest;
}

}  // namespace Vx::Tests
