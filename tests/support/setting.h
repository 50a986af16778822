#pragma once

#include <cstdint>
#include <cstdlib>

namespace Vx::Tests {

// Returns the number in the environment variable `name`, or `usual` if it is not set: a test's
// duration, or the seed for repeating a run.
inline std::uint32_t Setting(const char* name, std::uint32_t usual) {
  const char* text = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): no thread sets variables
  return text == nullptr ? usual : static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
}

}  // namespace Vx::Tests
