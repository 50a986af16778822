#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/result.h"
#include "platform/unique_handle.h"

namespace Vx::Platform {

// The parameters of a new process. It inherits nothing. The creation flags are always new console,
// normal priority and Unicode environment (0x430).
struct ProcessStart {
  std::wstring application;          // full path, never searched for
  std::wstring commandLine;          // at most 32,767 characters with the terminator
  std::wstring workingDirectory;     // empty: the service's own
  std::vector<wchar_t> environment;  // empty: the service's own
  std::wstring desktop{};            // "station\\desktop"; empty: the service's own
};

// Starts and finds processes. Any thread; no call waits for a process.
class Processes {
 public:
  virtual ~Processes() = default;

  // Starts a process as the user of `token`, or as the service itself for a null token. Returns its
  // id and closes its handles at once.
  virtual Result<std::uint32_t> Start(RawHandle token, const ProcessStart& start) = 0;

  // The ids of at most `limit` running processes, in the order of the system.
  virtual std::vector<std::uint32_t> Ids(std::size_t limit) const = 0;

  // Full path of the program of process `id`; empty when it cannot be opened or read.
  virtual std::optional<std::wstring> ImagePath(std::uint32_t id) const = 0;

  virtual std::optional<std::uint32_t> Session(std::uint32_t id) const = 0;

  // Returns a primary copy of the token of process `id`, to start processes with: maximum allowed
  // access, identification level, not inheritable.
  virtual Result<UniqueHandle> PrimaryToken(std::uint32_t id) const = 0;
};

// Splits a command line into words as CommandLineToArgvW does. Returns an empty list on failure.
// Looks at the text only, so a test has nothing to replace. `commandLine` must not be empty: for an
// empty one Windows returns the path of the running program.
std::vector<std::wstring> SplitCommandLine(const std::wstring& commandLine);

}  // namespace Vx::Platform
