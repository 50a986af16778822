#pragma once

#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/files.h"

namespace Vx::Simulator {

// The real files, plus files in memory, which hide real files with exactly the same path. They
// stand in for programs and texts in folders that a test must not write to. Thread-safe.
class SimulatedFiles : public Platform::Files {
 public:
  void Add(const std::wstring& path, const std::string& content);

  // Returns whether `path` is a file in memory.
  bool Holds(const std::wstring& path) const;

  Platform::Result<std::uint32_t> Attributes(const std::wstring& path) const override;
  bool ExistsByExactName(const std::wstring& path) const override;
  Platform::ErrorCode MakeFolder(const std::wstring& path, Platform::NewFolder access) override;
  Platform::ErrorCode Touch(const std::wstring& path) override;
  Platform::Result<std::vector<std::byte>> Read(const std::wstring& path,
                                                std::size_t maxBytes) const override;
  Platform::ErrorCode Overwrite(const std::wstring& path,
                                std::span<const std::byte> content) override;
  Platform::ErrorCode MoveOver(const std::wstring& from, const std::wstring& to) override;
  Platform::ErrorCode Remove(const std::wstring& path) override;
  Platform::Result<Platform::UniqueHandle> OpenReadLocked(const std::wstring& path) const override;
  Platform::Result<std::vector<std::byte>> Sha256(const std::wstring& path) const override;
  Platform::Result<std::wstring> FullPath(const std::wstring& path) const override;
  Platform::Result<std::wstring> FinalPath(const std::wstring& path) const override;
  Platform::Result<std::wstring> FinalPathOf(Platform::RawHandle file) const override;
  // A file in memory has no last-write time.
  Platform::Result<Platform::FileIdentity> IdentityOf(Platform::RawHandle file) const override;
  bool IsElsewhere(const std::wstring& path) const override;
  Platform::Result<Platform::AccessList> FolderAccess(const std::wstring& folder) const override;

  // Open and create real files only.
  Opened Open(const std::wstring& path, Platform::FileUse use) override;
  Opened Create(const std::wstring& path, const std::wstring& accessLike) override;
  Platform::Result<std::vector<std::wstring>> Siblings(const std::wstring& path) const override;

 private:
  std::optional<std::vector<std::byte>> Content(const std::wstring& path) const;

  mutable std::mutex mutex;
  std::map<std::wstring, std::vector<std::byte>> contents;
  mutable std::map<Platform::RawHandle, std::wstring> locked;  // keyed by handle
};

}  // namespace Vx::Simulator
