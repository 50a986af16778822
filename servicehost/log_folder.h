#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/unique_handle.h"
#include "servicehost/service_log.h"

namespace Vx::Host {

struct LogLimits {
  std::uint64_t fileBytes = std::uint64_t{8} << 20;
  std::size_t files = 14;
};

// Returns the end of the name of a log file, by which names of one service are ordered:
// "-YYYYMMDD-NNNN.log". Empty if `name` is not one. What precedes it is the name of the service, or
// "vxhost" in a file of an earlier version.
std::wstring_view LogAge(std::wstring_view name);

// The names of the log files in `folder` by age, of `service` or of all services.
std::vector<std::wstring> LogFileNames(const std::wstring& folder, std::wstring_view service = {});

// Log files of a service in a folder that services may share: NAME-YYYYMMDD-NNNN.log, in UTC. A new
// file begins with the day, when a line would take the file beyond its limit, and when another
// process writes to the file. Beyond the limit, the files of the service that were written longest
// ago are deleted, never the one that is open. Anyone who may read the folder may read a file while
// it is written. No process can delete it then, because the lines that follow would go with it.
//
// A process that is killed leaves at most a line without its end. The next process begins a line of
// its own behind it.
class LogFolder : public LogTarget {
 public:
  // The folder has to exist. `service` names the files.
  LogFolder(std::wstring folder, std::wstring service, LogLimits limits = {});

  bool Write(const LogEntry& entry) noexcept override;

 private:
  void Open(const std::wstring& day, std::size_t lineSize);
  void DeleteOldest() const;

  const std::wstring folder;
  const std::wstring service;
  const LogLimits limits;
  Platform::UniqueHandle file;
  std::wstring fileName;
  std::wstring fileDay;
  std::uint64_t size = 0;  // of the open file
};

}  // namespace Vx::Host
