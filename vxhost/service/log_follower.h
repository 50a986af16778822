#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Vx::Hosting::Tool {

// Reads lines that a service adds to its log files from now on, including files from an earlier
// version, whose names begin with "vxhost". Follows the service to its next file. One thread. Never
// blocks for longer than reading a file takes.
class LogFollower {
 public:
  // Throws std::runtime_error if this account cannot list the folder.
  LogFollower(std::wstring folder, std::wstring service);

  // Returns the next complete line, without its line ending, or nothing if none was added.
  std::optional<std::string> Next();

 private:
  std::vector<std::wstring> Files() const;
  bool Read(const std::wstring& name);

  const std::wstring folder;
  const std::wstring service;
  std::wstring file;         // the file being read; empty if there is none yet
  std::uint64_t offset = 0;  // of the first unread byte
  std::string rest;          // read but not yet returned
};

}  // namespace Vx::Hosting::Tool
