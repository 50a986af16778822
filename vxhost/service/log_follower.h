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
  // Start at the first line of the oldest file, or at the next line that the service adds.
  enum class From { Start, Now };
  // Reads all files of one service before those of the next. Throws std::runtime_error if this
  // account cannot list the folder.
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
  std::string rest;          // text already read; lines from `next` on have not been returned
  std::size_t next = 0;
};

}  // namespace Vx::Hosting::Tool
