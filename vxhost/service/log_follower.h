#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Vx::Host {

// Reads the lines that a service adds to its log files from now on, also to those of an earlier
// version, whose names begin with "vxhost". One thread; never blocks for
// longer than a read of a file. Survives the change of the file.
class LogFollower {
 public:
  // Throws std::runtime_error when the folder cannot be listed by this account.
  LogFollower(std::wstring folder, std::wstring service);

  // The next whole line, without its end. Nothing if none was added.
  std::optional<std::string> Next();

 private:
  std::vector<std::wstring> Files() const;
  bool Read(const std::wstring& name);

  const std::wstring folder;
  const std::wstring service;
  std::wstring file;         // the one that is read, empty before there is one
  std::uint64_t offset = 0;  // of the first byte in it that was not read
  std::string rest;          // read, but not yet returned
};

}  // namespace Vx::Host
