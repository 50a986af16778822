#include "support/process_gauges.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include <windows.h>

#include <tlhelp32.h>

#include "platform/unique_handle.h"
#include "support/threads.h"

namespace Vx::Tests {
namespace {

struct UsedBlocks {
  std::size_t bytes = 0;
  std::size_t count = 0;
};

UsedBlocks Walk(HANDLE heap) {
  UsedBlocks used;
  PROCESS_HEAP_ENTRY entry{};
  HeapLock(heap);
  while (HeapWalk(heap, &entry) != FALSE) {
    if ((entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) == 0) continue;
    used.bytes += entry.cbData;
    ++used.count;
  }
  HeapUnlock(heap);
  return used;
}

}  // namespace

std::uintptr_t HandleGauge() {
  std::array<Platform::UniqueHandle, 64> fresh;
  std::uintptr_t highest = 0;
  for (Platform::UniqueHandle& handle : fresh) {
    handle.reset(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    highest = std::max(highest, reinterpret_cast<std::uintptr_t>(handle.get()));
  }
  return highest;
}

std::uintptr_t RestingHandleGauge(std::uintptr_t goal, std::chrono::milliseconds limit) {
  const ULONGLONG end = GetTickCount64() + static_cast<ULONGLONG>(limit.count());
  std::uintptr_t gauge = HandleGauge();
  for (; gauge > goal && GetTickCount64() < end; gauge = HandleGauge()) Sleep(5);
  return gauge;
}

// Counts regions, because the emulator reports zero private bytes for every process.
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
    memory.heap += Walk(heaps[i]).bytes;
  }
  return memory;
}

bool MemoryIsMeasurable() {
  constexpr std::size_t kBlocks = 200;
  constexpr std::size_t kSize = 40;
  HANDLE heap = HeapCreate(0, 0, 0);
  const std::size_t before = Walk(heap).count;
  for (std::size_t i = 0; i < kBlocks; ++i) HeapAlloc(heap, 0, kSize);
  const bool measurable = Walk(heap).count >= before + kBlocks;
  HeapDestroy(heap);
  if (!measurable) std::printf("memory is not compared: HeapWalk lists free blocks as used\n");
  return measurable;
}

std::size_t ThreadCount() {
  const Platform::UniqueHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
  THREADENTRY32 entry{};
  entry.dwSize = sizeof entry;
  std::size_t count = 0;
  for (BOOL more = Thread32First(snapshot.get(), &entry); more != FALSE;
       more = Thread32Next(snapshot.get(), &entry)) {
    if (entry.th32OwnerProcessID == GetCurrentProcessId()) ++count;
  }
  return count;
}

bool ThreadsEnd(std::size_t count, std::chrono::milliseconds limit) {
  return Eventually([count] { return ThreadCount() <= count; }, limit);
}

}  // namespace Vx::Tests
