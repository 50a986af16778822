#include "support/memory_in_use.h"

#include <algorithm>
#include <array>

#include <windows.h>

namespace Vx::Tests {

// Counted here, region by region: the emulator answers zero private bytes for every process.
MemoryInUse MeasureMemory() {
  MemoryInUse memory;
  MEMORY_BASIC_INFORMATION region{};
  for (const char* at = nullptr; VirtualQuery(at, &region, sizeof region) != 0;
       at = static_cast<const char*>(region.BaseAddress) + region.RegionSize) {
    if (region.State != MEM_FREE) memory.addresses += region.RegionSize;
    if (region.State == MEM_COMMIT && region.Type == MEM_PRIVATE) {
      memory.committed += region.RegionSize;
    }
  }
  std::array<HANDLE, 16> heaps{};
  const DWORD count = GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data());
  for (DWORD i = 0; i < std::min<DWORD>(count, static_cast<DWORD>(heaps.size())); ++i) {
    PROCESS_HEAP_ENTRY entry{};
    HeapLock(heaps[i]);
    while (HeapWalk(heaps[i], &entry) != FALSE) {
      if ((entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0) memory.heap += entry.cbData;
    }
    HeapUnlock(heaps[i]);
  }
  return memory;
}

}  // namespace Vx::Tests
