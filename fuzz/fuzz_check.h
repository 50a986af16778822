#pragma once

#include <cstdio>
#include <cstdlib>

namespace Vx::Fuzz {

// Aborts the process if a rule does not hold. The fuzzer then reports the input.
inline void Check(bool holds, const char* rule) {
  if (holds) return;
  std::fprintf(stderr, "broken rule: %s\n", rule);
  std::abort();
}

}  // namespace Vx::Fuzz
