#pragma once

#include <cstdint>
#include <cstdlib>

namespace Vx::Tests {

// The number in the environment variable `name`; `usual` where there is none. For how long a test
// runs, and for the seed of a run that is to be repeated.
inline std::uint32_t Setting(const char* name, std::uint32_t usual) {
  const char* text = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): no thread sets variables
  return text == nullptr ? usual : static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
}

}  // namespace Vx::Tests
