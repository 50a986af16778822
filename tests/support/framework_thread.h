#pragma once

#include <gtest/gtest.h>

namespace Vx::Tests {

// Makes GoogleTest start its thread for the calling thread's thread-locals now. Otherwise it starts
// at the first trace or failure and adds a stack and handles to what a test counts.
inline void StartFrameworkThread() {
  SCOPED_TRACE("");
}

}  // namespace Vx::Tests
