#pragma once

#include <cstdio>
#include <cstdlib>

namespace Vx::Fuzz {

// Ends the process if a rule does not hold. The fuzzer reports that with the input.
inline void Check(bool holds, const char* rule) {
  if (holds) return;
  std::fprintf(stderr, "broken rule: %s\n", rule);
  std::abort();
}

}  // namespace Vx::Fuzz
