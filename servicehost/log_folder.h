#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/unique_handle.h"
#include "servicehost/service_log.h"

namespace Vx::Hosting::ServiceHost {

struct LogLimits {
  std::uint64_t fileBytes = std::uint64_t{8} << 20;
  std::size_t files = 14;
};

// Returns the suffix that log files are sorted by, "-YYYYMMDD-NNNN.log", or "" if `name` is not a
// log file's name. The prefix is the service's name, or "vxhost" in earlier versions.
std::wstring_view LogAge(std::wstring_view name);

// Returns the log files' names in `folder`, oldest first. An empty `service` means all services.
std::vector<std::wstring> LogFileNames(const std::wstring& folder, std::wstring_view service = {});

// A service's log files in a folder that services may share: NAME-YYYYMMDD-NNNN.log, in UTC. A new
// file is started each day, when a line would exceed the size limit, and while another process is
// writing to the current file. When the file limit is exceeded, the service's least recently
// written files are deleted, but never the open one. The open file can be read but not deleted,
// because later lines would be lost with it.
//
// A killed process leaves at most one incomplete line. The next process starts on a new line.
class LogFolder {
 public:
  // Creates the folder when it is missing. Throws std::exception if it must not be created.
  using Maker = std::function<void()>;

  // File names start with `service`. Without `make`, the folder must exist.
  LogFolder(std::wstring folder, std::wstring service, LogLimits limits = {}, Maker make = {});

  // Writes an entry. Blocks and throws as a LogTarget does.
  void Write(const LogEntry& entry);

 private:
  void Open(const std::wstring& day, std::size_t lineSize);
  void DeleteOldest() const;

  const std::wstring folder;
  const std::wstring service;
  const LogLimits limits;
  const Maker makeFolder;
  Platform::UniqueHandle file;
  std::wstring fileName;
  std::wstring fileDay;
  std::uint64_t size = 0;  // of the open file, in bytes
};

}  // namespace Vx::Hosting::ServiceHost
