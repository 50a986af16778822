#pragma once

#include <gtest/gtest.h>

namespace Vx::Tests {

// Makes GoogleTest start its thread for the thread-locals of the calling one. It starts that at the
// first trace or failure of a thread otherwise, where it adds a stack and handles to what a test
// counts.
inline void StartFrameworkThread() {
  SCOPED_TRACE("");
}

}  // namespace Vx::Tests
