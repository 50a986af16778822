#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "platform/result.h"
#include "platform/unique_handle.h"

namespace Vx::Platform {

// Sizes of path buffers in characters, including the terminator.
inline constexpr std::size_t kShortPath = 260;
inline constexpr std::size_t kLongestPath = 32767;

class Environment {
 public:
  virtual ~Environment() = default;

  // Expands the process's variables. Fails if the result and its terminator exceed `maxChars`.
  virtual Result<std::wstring> Expand(const std::wstring& text, std::size_t maxChars) const = 0;

  // Does the same with the variables of the user of `token`, or of the system if it is null.
  virtual Result<std::wstring> ExpandForUser(RawHandle token, const std::wstring& text,
                                             std::size_t maxChars) const = 0;

  // Returns the environment block of the user of `token`, or of the system if it is null, without
  // the service's own variables. Each entry is "NAME=value\0", and a final "\0" ends the block.
  virtual Result<std::vector<wchar_t>> Block(RawHandle token) const = 0;
};

}  // namespace Vx::Platform
