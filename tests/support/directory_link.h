#pragma once

#include <string>

namespace Vx::Tests {

// A link at `path` to the directory `target`, removed at the end. The emulator reports success for
// a symbolic link without making one. There the link is one of the underlying system.
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
