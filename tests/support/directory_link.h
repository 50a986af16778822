#pragma once

#include <string>

namespace Vx::Tests {

// A link at `path` to the directory `target`, removed at the end. The emulator reports success for
// a symbolic link without creating one, so there the host system's link is used.
class DirectoryLink {
 public:
  DirectoryLink(std::wstring path, const std::wstring& target);
  DirectoryLink(const DirectoryLink&) = delete;
  DirectoryLink& operator=(const DirectoryLink&) = delete;
  ~DirectoryLink();

 private:
  std::wstring path;
  bool outside = false;  // made on the host system
};

}  // namespace Vx::Tests
