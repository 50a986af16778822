#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "platform/files.h"
#include "platform/machine.h"

namespace Vx::Tests {

inline constexpr Platform::ErrorCode kFault = 1117;  // ERROR_IO_DEVICE
inline constexpr std::uint32_t kReparsePoint = 0x400;

// Real files, with switches for faults other than a refused call.
class FaultyFiles : public Platform::Files {
 public:
  bool writesStopHalfway = false;
  std::function<void()> onContent = [] {};     // called before content is read, written or moved
  bool linksEverywhere = false;                // every existing path has the reparse attribute
  mutable std::size_t largestRead = 0;         // the bound of the last read
  std::vector<std::vector<std::byte>> writes;  // the content of each attempted write

  Platform::Result<std::uint32_t> Attributes(const std::wstring& path) const override {
    Platform::Result<std::uint32_t> attributes = real.Attributes(path);
    if (attributes && linksEverywhere) *attributes |= kReparsePoint;
    return attributes;
  }
  bool ExistsByExactName(const std::wstring& path) const override {
    return real.ExistsByExactName(path);
  }
  Platform::ErrorCode MakeFolder(const std::wstring& path) override {
    return real.MakeFolder(path);
  }
  Platform::ErrorCode Touch(const std::wstring& path) override { return real.Touch(path); }
  Platform::Result<std::vector<std::byte>> Read(const std::wstring& path,
                                                std::size_t maxBytes) const override {
    onContent();
    largestRead = maxBytes;
    return real.Read(path, maxBytes);
  }
  Platform::ErrorCode Overwrite(const std::wstring& path,
                                std::span<const std::byte> content) override {
    onContent();
    writes.emplace_back(content.begin(), content.end());
    if (!writesStopHalfway) return real.Overwrite(path, content);
    real.Overwrite(path, content.first(content.size() / 2));
    return kFault;
  }
  Platform::ErrorCode MoveOver(const std::wstring& from, const std::wstring& to) override {
    onContent();
    return real.MoveOver(from, to);
  }
  Platform::ErrorCode Remove(const std::wstring& path) override { return real.Remove(path); }
  Platform::Result<Platform::UniqueHandle> OpenReadLocked(const std::wstring& path) const override {
    return real.OpenReadLocked(path);
  }
  Platform::Result<std::vector<std::byte>> Sha256(const std::wstring& path) const override {
    return real.Sha256(path);
  }
  Platform::Result<std::wstring> FullPath(const std::wstring& path) const override {
    return real.FullPath(path);
  }
  Platform::Result<std::wstring> FinalPath(const std::wstring& path) const override {
    return real.FinalPath(path);
  }
  Platform::Result<std::wstring> FinalPathOf(Platform::RawHandle file) const override {
    return real.FinalPathOf(file);
  }
  Platform::Result<std::vector<Platform::AccessEntry>> FolderAccess(
      const std::wstring& folder) const override {
    return real.FolderAccess(folder);
  }

 private:
  Platform::Files& real = *Platform::WindowsMachine().files;
};

}  // namespace Vx::Tests
