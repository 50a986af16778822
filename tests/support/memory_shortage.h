#pragma once

#include <cstddef>

#include <gtest/gtest.h>

namespace Vx::Tests {

enum class Shortage { Once, Lasting };

// Fails the calling thread's allocations after the first `succeeding` ones. The linker redirects
// malloc, calloc and realloc, and so operator new, of programs that link this library.
class MemoryShortage {
 public:
  MemoryShortage(Shortage kind, std::size_t succeeding);
  MemoryShortage(const MemoryShortage&) = delete;
  MemoryShortage& operator=(const MemoryShortage&) = delete;
  ~MemoryShortage();

  // Lets allocations succeed again. Returns whether one failed.
  bool End();
};

// Runs `action` with its first, second, ... allocation failing, until none is left. After each run,
// calls `check` with enough memory. `action` must not throw. Returns the number of allocations.
template <typename Action, typename Check>
std::size_t FailEachAllocation(Shortage kind, Action&& action, Check&& check) {
  for (std::size_t i = 0;; ++i) {
    SCOPED_TRACE(testing::Message() << "allocation " << i);
    MemoryShortage shortage(kind, i);
    bool threw = false;
    try {
      action();
    } catch (...) {
      threw = true;
    }
    const bool failed = shortage.End();
    EXPECT_FALSE(threw);
    check();
    if (!failed) return i;
  }
}

}  // namespace Vx::Tests
