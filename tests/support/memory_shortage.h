#pragma once

#include <cstddef>

#include <gtest/gtest.h>

namespace Vx::Tests {

enum class Shortage { Once, Lasting };

// Makes the calling thread's allocations fail after the first `succeeding` ones, while it lives.
// The linker redirects every malloc, calloc and realloc, and so every operator new, of a program
// that links this library.
class MemoryShortage {
 public:
  MemoryShortage(Shortage kind, std::size_t succeeding);
  MemoryShortage(const MemoryShortage&) = delete;
  MemoryShortage& operator=(const MemoryShortage&) = delete;
  ~MemoryShortage();

  // Lets allocations succeed again. Returns whether one failed.
  bool End();
};

// Runs `action` with its first, second, ... allocation failing, until none is left to fail, and
// each time then `check` with enough memory. Expects `action` not to throw. Returns the number of
// allocations.
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
