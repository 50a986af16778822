#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace Vx::Tests {

// Returns how full this process's handle table is, to find leaks. The emulator does not implement
// GetProcessHandleCount but hands out the lowest free value, so this is the highest of some fresh
// handles.
std::uintptr_t HandleGauge();

// The first contention for one of this toolchain's mutexes makes an event, which it keeps. Which
// mutexes are contended is chance, so a run of many steps may end with up to this many more
// handles. A leak in each step, or in one of many, exceeds that.
inline constexpr std::size_t kMutexEvents = 8;
inline constexpr std::uintptr_t kMutexEventsGauge = kMutexEvents * 4;  // values are four apart

// Waits for the gauge to be at most `goal`, because passing system threads also hold handles.
std::uintptr_t RestingHandleGauge(std::uintptr_t goal,
                                  std::chrono::milliseconds limit = std::chrono::seconds(30));

// Bytes of this process: addresses that are not free, private commit, and heap blocks in use.
struct MemoryInUse {
  std::size_t addresses = 0;
  std::size_t committed = 0;
  std::size_t heap = 0;
};
MemoryInUse MeasureMemory();

// Returns whether `heap` and `committed` show what is in use. If not, prints why. HeapWalk lists a
// heap's blocks, but later releases of the emulator serve small blocks from groups, and list a
// group as one used block even if all its blocks are free.
// https://learn.microsoft.com/en-us/windows/win32/api/heapapi/nf-heapapi-heapwalk
bool MemoryIsMeasurable();

std::size_t ThreadCount();

// Waits until at most `count` threads are left. Returns false if more are left after `limit`.
bool ThreadsEnd(std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(60));

// Returns the number in the environment variable `name`, or `usual` if it is not set: a test's
// duration, or the seed for repeating a run.
inline std::uint32_t Setting(const char* name, std::uint32_t usual) {
  const char* text = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): no thread sets variables
  return text == nullptr ? usual : static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
}

}  // namespace Vx::Tests
