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
  bool allowed = false;  // anything but a denial
  std::uint32_t mask = 0;
  // As text, "S-1-...". Another text for an entry that allows access on a condition, to an object
  // or in a way that this version does not know.
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

// Tells whether an open file is one that was open before, and probably unchanged.
struct FileIdentity {
  std::uint32_t volume = 0;   // its serial number
  std::uint64_t index = 0;    // of the file on the volume
  std::uint64_t size = 0;     // bytes
  std::uint64_t written = 0;  // FILETIME scale

  bool operator==(const FileIdentity&) const = default;
};

// Files and folders by full path. Every error is a Win32 code; zero is success.
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

  // Creates an empty file if there is none.
  virtual ErrorCode Touch(const std::wstring& path) = 0;

  // ERROR_FILE_TOO_LARGE above `maxBytes`, ERROR_BAD_FILE_TYPE (like Overwrite) for a pipe or
  // device.
  virtual Result<std::vector<std::byte>> Read(const std::wstring& path,
                                              std::size_t maxBytes) const = 0;

  // Empties `path`, creating it if needed, and writes `content` in one write call.
  virtual ErrorCode Overwrite(const std::wstring& path, std::span<const std::byte> content) = 0;

  // Renames `from` to `to` in one step, replacing an existing file.
  virtual ErrorCode MoveOver(const std::wstring& from, const std::wstring& to) = 0;

  virtual ErrorCode Remove(const std::wstring& path) = 0;

  // Opens `path` with read sharing only, so that the file cannot be written, renamed or deleted
  // while the handle lives. ERROR_BAD_FILE_TYPE for a pipe or a device.
  virtual Result<UniqueHandle> OpenReadLocked(const std::wstring& path) const = 0;

  // Returns the 32 bytes of the content's SHA-256. Reads the file in pieces.
  virtual Result<std::vector<std::byte>> Sha256(const std::wstring& path) const = 0;

  // Returns `path` as Windows normalises it before opening anything: slashes, "." and "..",
  // trailing dots and blanks. The file need not exist.
  virtual Result<std::wstring> FullPath(const std::wstring& path) const = 0;

  // Returns whether `path`, which begins with a drive, is on another machine's drive or on none.
  virtual bool IsElsewhere(const std::wstring& path) const = 0;

  // Returns where `path` really is, after links, mount points and short names, without "\\?\".
  virtual Result<std::wstring> FinalPath(const std::wstring& path) const = 0;

  virtual Result<std::wstring> FinalPathOf(RawHandle file) const = 0;

  virtual Result<FileIdentity> IdentityOf(RawHandle file) const = 0;

  // Fails if the owner or the discretionary access list cannot be read or there is no list.
  virtual Result<AccessList> FolderAccess(const std::wstring& folder) const = 0;

  // Opens the existing file `path` itself. Does not follow a link.
  virtual Opened Open(const std::wstring& path, FileUse use) = 0;

  // Creates the file `path`, which must not exist, with the access list of the file `accessLike`,
  // or its folder's if that file does not exist. Opened as for FileUse::Replace.
  virtual Opened Create(const std::wstring& path, const std::wstring& accessLike) = 0;

  // Returns the files whose paths are `path`, a dot and more, last written first. Fails unless the
  // whole folder was listed.
  virtual Result<std::vector<std::wstring>> Siblings(const std::wstring& path) const = 0;
};

}  // namespace Vx::Platform
