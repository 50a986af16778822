#pragma once

#include <cstddef>

#include <gtest/gtest.h>

namespace Vx::Tests {

// Whether one allocation fails or every one from then on.
enum class Shortage { Once, Lasting };

// Makes the allocations of the calling thread fail after the first `succeeding` ones, while it
// lives. The linker redirects every malloc, calloc and realloc of a program that links this
// library, and so every operator new.
class MemoryShortage {
 public:
  MemoryShortage(Shortage kind, std::size_t succeeding);
  MemoryShortage(const MemoryShortage&) = delete;
  MemoryShortage& operator=(const MemoryShortage&) = delete;
  ~MemoryShortage();

  // Lets every allocation succeed again. Returns whether one has failed.
  bool End();
};

// Runs `action` with its first, second, ... allocation failing, until there is none left to fail,
// and then `check` each time with memory enough. Expects that `action` throws nothing. Returns the
// number of allocations.
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
