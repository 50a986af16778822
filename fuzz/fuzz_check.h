#pragma once

#include <cstdio>
#include <cstdlib>

namespace Vx::Fuzz {

// Ends the process, which the fuzzer reports with the input, when a rule does not hold.
inline void Check(bool holds, const char* rule) {
  if (holds) return;
  std::fprintf(stderr, "broken rule: %s\n", rule);
  std::abort();
}

}  // namespace Vx::Fuzz
