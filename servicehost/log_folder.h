#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/unique_handle.h"
#include "servicehost/service_log.h"

namespace Vx::Host {

struct LogLimits {
  std::uint64_t fileBytes = std::uint64_t{8} << 20;
  std::size_t files = 14;
};

// The names of the log files in `folder`, oldest first.
std::vector<std::wstring> LogFileNames(const std::wstring& folder);

// Log files in a folder: vxhost-YYYYMMDD-NNNN.log, in UTC. A new file begins with the day, and when
// a line would take the file beyond its limit. The oldest files beyond the limit are deleted.
// Anyone who may read the folder may read a file while it is written. No process can delete it
// then, because the lines that follow would go with it.
//
// A process that is killed leaves at most a line without its end. The next process begins a line of
// its own behind it.
class LogFolder : public LogTarget {
 public:
  // The folder has to exist.
  explicit LogFolder(std::wstring folder, LogLimits limits = {});

  bool Write(const LogEntry& entry) noexcept override;

 private:
  void Open(const std::wstring& day, std::size_t lineSize);
  void DeleteOldest() const;

  const std::wstring folder;
  const LogLimits limits;
  Platform::UniqueHandle file;
  std::wstring fileDay;
  std::uint64_t size = 0;  // of the open file
};

}  // namespace Vx::Host
