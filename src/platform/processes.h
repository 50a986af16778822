#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/result.h"
#include "platform/unique_handle.h"

namespace Vx::Platform {

// The longest command line that Windows accepts, in characters without the terminator: see
// https://learn.microsoft.com/windows/win32/api/processthreadsapi/nf-processthreadsapi-createprocessasuserw
inline constexpr std::size_t kMaxCommandLine = 32766;

// Inherits no handles. Flags: new console, normal priority, Unicode environment (0x430).
struct ProcessStart {
  std::wstring application;          // full path, never searched for
  std::wstring commandLine;          // at most kMaxCommandLine characters
  std::wstring workingDirectory;     // empty: the service's own
  std::vector<wchar_t> environment;  // empty: the service's own
  std::wstring desktop{};            // "station\\desktop"; empty: the service's own
};

// Starts and finds processes. Thread-safe. No call waits for a process.
class Processes {
 public:
  virtual ~Processes() = default;

  // Starts a process as the user of `token`, or as the service if null. Returns its id, no handle.
  virtual Result<std::uint32_t> Start(RawHandle token, const ProcessStart& start) = 0;

  // Returns the ids of at most `limit` running processes, in the system's order.
  virtual std::vector<std::uint32_t> Ids(std::size_t limit) const = 0;

  // Returns the full path of a process's program, or nothing if it cannot be opened or read.
  virtual std::optional<std::wstring> ImagePath(std::uint32_t id) const = 0;

  virtual std::optional<std::uint32_t> Session(std::uint32_t id) const = 0;

  // Returns a primary copy of a process's token, to start processes with: maximum allowed access,
  // identification level, not inheritable.
  virtual Result<UniqueHandle> PrimaryToken(std::uint32_t id) const = 0;
};

// Splits like CommandLineToArgvW. Returns an empty list on failure. `commandLine` must not be
// empty, because Windows would return the path of the running program.
std::vector<std::wstring> SplitCommandLine(const std::wstring& commandLine);

}  // namespace Vx::Platform
