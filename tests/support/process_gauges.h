#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace Vx::Tests {

// How far this process's handle table is filled: grows when handles stay open. The emulator leaves
// GetProcessHandleCount's answer untouched but hands out the lowest free handle value, so this is
// the highest of some fresh handles.
std::uintptr_t HandleGauge();

// A mutex of this toolchain makes an event when two threads first meet at it, and keeps it. Which
// of them meet is chance, so a run of many steps may end with up to this many handles more. What
// leaks at each step, or at one of many, is more than that.
inline constexpr std::size_t kMutexEvents = 8;
inline constexpr std::uintptr_t kMutexEventsGauge = kMutexEvents * 4;  // values are four apart

// Returns the gauge as soon as it is no more than `goal`, or else what it is after `limit`: threads
// of the system that come and go hold handles of their own meanwhile.
std::uintptr_t RestingHandleGauge(std::uintptr_t goal,
                                  std::chrono::milliseconds limit = std::chrono::seconds(30));

// Memory of this process in bytes: all addresses that are not free, what it alone has committed,
// and the heap blocks in use.
struct MemoryInUse {
  std::size_t addresses = 0;
  std::size_t committed = 0;
  std::size_t heap = 0;
};
MemoryInUse MeasureMemory();

// Whether `heap` and `committed` show what is in use. If not, prints why. HeapWalk lists the blocks
// of a heap, but later releases of the emulator serve small blocks from groups that they keep, and
// list a group as one block in use even if all of its blocks are free.
// https://learn.microsoft.com/en-us/windows/win32/api/heapapi/nf-heapapi-heapwalk
bool MemoryIsMeasurable();

// Threads of this process.
std::size_t ThreadCount();

// Waits until no more than `count` threads are left; false when more are after `limit`.
bool ThreadsEnd(std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(60));

}  // namespace Vx::Tests
