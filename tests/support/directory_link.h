#pragma once

#include <string>

namespace Vx::Tests {

// A link at `path` to the directory `target`, taken away at the end. The emulator answers that it
// made a symbolic link and makes none; there the link is one of the system below it.
class DirectoryLink {
 public:
  DirectoryLink(std::wstring path, const std::wstring& target);
  DirectoryLink(const DirectoryLink&) = delete;
  DirectoryLink& operator=(const DirectoryLink&) = delete;
  ~DirectoryLink();

 private:
  std::wstring path;
  bool outside = false;  // made below the emulator
};

}  // namespace Vx::Tests
