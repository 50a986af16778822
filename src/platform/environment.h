#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "platform/result.h"
#include "platform/unique_handle.h"

namespace Vx::Platform {

// What the paths of this system itself fit into, in characters with the terminator.
inline constexpr std::size_t kShortPath = 260;

// Environment variables of the process and of users.
class Environment {
 public:
  virtual ~Environment() = default;

  // `text` with the process's variables put in; fails when the result needs more than `maxChars`
  // characters, the terminator included.
  virtual Result<std::wstring> Expand(const std::wstring& text, std::size_t maxChars) const = 0;

  // The same with the variables of the user of `token` (null: the system's).
  virtual Result<std::wstring> ExpandForUser(RawHandle token, const std::wstring& text,
                                             std::size_t maxChars) const = 0;

  // A Unicode environment block ("NAME=value\0" entries, then "\0") of the user of `token`, or of
  // the system for a null token, without the service's own variables.
  virtual Result<std::vector<wchar_t>> Block(RawHandle token) const = 0;
};

}  // namespace Vx::Platform
