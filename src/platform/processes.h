#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/result.h"
#include "platform/unique_handle.h"

namespace Vx::Platform {

// What a new process is made from. Nothing is inherited; the creation flags are always new console,
// normal priority and Unicode environment (0x430).
struct ProcessStart {
  std::wstring application;          // full path, never searched for
  std::wstring commandLine;          // at most 32,767 characters with the terminator
  std::wstring workingDirectory;     // empty: the service's own
  std::vector<wchar_t> environment;  // empty: the service's own
  std::wstring desktop{};            // "station\\desktop"; empty: the service's own
};

// Processes: starting them and finding one. Any thread; no call waits for a process.
class Processes {
 public:
  virtual ~Processes() = default;

  // Starts a process as the user of `token` (null: as the service itself) and answers its id; its
  // handles are closed at once.
  virtual Result<std::uint32_t> Start(RawHandle token, const ProcessStart& start) = 0;

  // The ids of at most `limit` running processes, in the system's order.
  virtual std::vector<std::uint32_t> Ids(std::size_t limit) const = 0;

  // Full path of the program of process `id`; empty when it cannot be opened or read.
  virtual std::optional<std::wstring> ImagePath(std::uint32_t id) const = 0;

  virtual std::optional<std::uint32_t> Session(std::uint32_t id) const = 0;

  // A primary copy of the token of process `id` (maximum allowed access, identification level, not
  // inheritable), to start processes with.
  virtual Result<UniqueHandle> PrimaryToken(std::uint32_t id) const = 0;
};

// The words of a command line as CommandLineToArgvW splits it; empty on failure. Looks at the text
// only, so there is nothing for a test to replace. `commandLine` is not empty: for an empty one
// Windows answers with the path of the running program.
std::vector<std::wstring> SplitCommandLine(const std::wstring& commandLine);

}  // namespace Vx::Platform
