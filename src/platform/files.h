#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/file_handle.h"
#include "platform/result.h"
#include "platform/unique_handle.h"

namespace Vx::Platform {

// An entry of an access list, reduced to what the rules check.
struct AccessEntry {
  bool allowed = false;  // anything but a deny entry
  std::uint32_t mask = 0;
  // The SID as text, "S-1-...", if this is a plain allow entry, without a condition or an object
  // type. Otherwise, some other text.
  std::wstring sid;
};

struct AccessList {
  std::wstring owner;  // a SID as text
  std::vector<AccessEntry> entries;
};

// The access list of a new folder.
enum class NewFolder : std::uint8_t {
  Inherits,  // from the parent folder
  Private,   // SYSTEM, the administrators and the owner, who could change the list anyway
};

// Identifies an open file, to detect whether it was opened before and is probably unchanged.
struct FileIdentity {
  std::uint32_t volume = 0;   // serial number
  std::uint64_t index = 0;    // of the file on the volume
  std::uint64_t size = 0;     // bytes
  std::uint64_t written = 0;  // FILETIME

  bool operator==(const FileIdentity&) const = default;
};

// Files and folders by full path. Every error is a Win32 code. Zero is success.
class Files {
 public:
  using Opened = Result<std::unique_ptr<FileHandle>>;

  virtual ~Files() = default;

  // Returns the FILE_ATTRIBUTE_ bits of `path` itself. Does not follow a link.
  virtual Result<std::uint32_t> Attributes(const std::wstring& path) const = 0;

  // Returns whether a directory search finds exactly this name. Wildcards do not match.
  virtual bool ExistsByExactName(const std::wstring& path) const = 0;

  // Creates only the last level of `path`. A private folder has its access list from the start.
  virtual ErrorCode MakeFolder(const std::wstring& path, NewFolder access) = 0;

  // Creates an empty file if it does not exist.
  virtual ErrorCode Touch(const std::wstring& path) = 0;

  // Fails with ERROR_FILE_TOO_LARGE above `maxBytes`. Like Overwrite, fails with
  // ERROR_BAD_FILE_TYPE for a pipe or a device.
  virtual Result<std::vector<std::byte>> Read(const std::wstring& path,
                                              std::size_t maxBytes) const = 0;

  // Empties `path`, creating it if needed, and writes `content` in one write call.
  virtual ErrorCode Overwrite(const std::wstring& path, std::span<const std::byte> content) = 0;

  // Renames `from` to `to` in one step, replacing an existing file.
  virtual ErrorCode MoveOver(const std::wstring& from, const std::wstring& to) = 0;

  virtual ErrorCode Remove(const std::wstring& path) = 0;

  // Opens `path` with read sharing only, so that the file cannot be written, renamed or deleted
  // while the handle is open. Fails with ERROR_BAD_FILE_TYPE for a pipe or a device.
  virtual Result<UniqueHandle> OpenReadLocked(const std::wstring& path) const = 0;

  // Returns the 32 bytes of the content's SHA-256. Reads the file in pieces.
  virtual Result<std::vector<std::byte>> Sha256(const std::wstring& path) const = 0;

  // Returns `path` as Windows normalizes it before opening anything: slashes, "." and "..",
  // trailing dots and spaces. The file need not exist.
  virtual Result<std::wstring> FullPath(const std::wstring& path) const = 0;

  // Returns whether the drive at the start of `path` is on another machine or does not exist.
  virtual bool IsElsewhere(const std::wstring& path) const = 0;

  // Returns the actual location of `path`: links, mount points and short names resolved, no "\\?\".
  virtual Result<std::wstring> FinalPath(const std::wstring& path) const = 0;

  virtual Result<std::wstring> FinalPathOf(RawHandle file) const = 0;

  virtual Result<FileIdentity> IdentityOf(RawHandle file) const = 0;

  // Fails if the owner or the discretionary access list cannot be read, or if there is no list.
  virtual Result<AccessList> FolderAccess(const std::wstring& folder) const = 0;

  // Opens the existing file `path` itself. Does not follow a link.
  virtual Opened Open(const std::wstring& path, FileUse use) = 0;

  // Creates the file `path`, which must not exist, with the access list of the file `accessLike`,
  // or that of its folder if `accessLike` does not exist. Opens it as for FileUse::Replace.
  virtual Opened Create(const std::wstring& path, const std::wstring& accessLike) = 0;

  // Returns the files whose paths begin with `path` and a dot, newest first by last-write time.
  // Fails unless the whole folder was listed.
  virtual Result<std::vector<std::wstring>> Siblings(const std::wstring& path) const = 0;
};

}  // namespace Vx::Platform
