#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Vx::Hosting::Tool {

// Reads the lines of a service's log files, including those added later, and follows the service to
// its next file. Use from one thread. Blocks only while reading a file.
class LogFollower {
 public:
  // Begins with the first line of the oldest file, or with the next line that the service adds.
  enum class From { Start, Now };
  // The files of each service follow those of the service before it. Throws std::runtime_error if
  // this account cannot list the folder.
  LogFollower(std::wstring folder, std::vector<std::wstring> services, From from);

  // Returns the next complete line, without its line ending, or nothing if none was added.
  std::optional<std::string> Next();

  // How long to wait before calling Next again.
  static constexpr std::chrono::milliseconds kPoll{100};

 private:
  std::vector<std::wstring> Files() const;
  bool Read(const std::wstring& name);

  const std::wstring folder;
  const std::vector<std::wstring> services;
  std::wstring file;         // the file being read; empty if there is none yet
  std::uint64_t offset = 0;  // of the first unread byte
  std::string rest;          // read; lines from `next` on are not yet returned
  std::size_t next = 0;
};

}  // namespace Vx::Hosting::Tool
