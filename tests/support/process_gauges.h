#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace Vx::Tests {

// Returns the highest of 64 new handle values, which rises if handles leak. The emulator lacks
// GetProcessHandleCount but always hands out the lowest free value.
std::uintptr_t HandleGauge();

// This toolchain's mutexes create and keep an event on first contention. Contention is a matter of
// chance, so a long run may end with this many more handles. Leaks, even rare ones, exceed that.
inline constexpr std::size_t kMutexEvents = 8;
inline constexpr std::uintptr_t kMutexEventsGauge = kMutexEvents * 4;  // values are four apart

// Waits for the gauge to reach at most `goal`, because short-lived system threads also use handles.
std::uintptr_t RestingHandleGauge(std::uintptr_t goal,
                                  std::chrono::milliseconds limit = std::chrono::seconds(30));

// In bytes: address space in use, private commit, and heap blocks in use.
struct MemoryInUse {
  std::size_t addresses = 0;
  std::size_t committed = 0;
  std::size_t heap = 0;
};
MemoryInUse MeasureMemory();

// Returns whether `heap` and `committed` reflect the memory in use. If not, prints why. HeapWalk
// lists a heap's blocks, but newer emulators serve small blocks from groups and list a group as one
// used block even if all of its blocks are free.
// https://learn.microsoft.com/en-us/windows/win32/api/heapapi/nf-heapapi-heapwalk
bool MemoryIsMeasurable();

std::size_t ThreadCount();

// Waits until at most `count` threads are left. Returns false if more are left after `limit`.
bool ThreadsEnd(std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(60));

inline std::uint32_t Setting(const char* name, std::uint32_t usual) {
  const char* text = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): no thread sets variables
  return text == nullptr ? usual : static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
}

}  // namespace Vx::Tests
