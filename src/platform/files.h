#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/file_handle.h"
#include "platform/result.h"
#include "platform/unique_handle.h"

namespace Vx::Platform {

// One entry of an access list, reduced to what the rules look at.
struct AccessEntry {
  bool allowed = false;  // an access-allowed entry
  std::uint32_t mask = 0;
  std::wstring sid;  // as text, "S-1-..."; empty for other kinds of entries
};

// A discretionary access list and the owner.
struct AccessList {
  std::wstring owner;  // a SID as text
  std::vector<AccessEntry> entries;
};

// Who may use a new folder.
enum class NewFolder : std::uint8_t {
  Inherits,  // as the folder above says
  Private,   // SYSTEM, the administrators and the owner, who could change the list anyway
};

// Files and folders by full path. Every error is a Win32 code; zero is success.
class Files {
 public:
  using Opened = Result<std::unique_ptr<FileHandle>>;

  virtual ~Files() = default;

  // The FILE_ATTRIBUTE_ bits of `path` itself (a link is not followed).
  virtual Result<std::uint32_t> Attributes(const std::wstring& path) const = 0;

  // Whether a directory search finds exactly this name. Wildcards do not match.
  virtual bool ExistsByExactName(const std::wstring& path) const = 0;

  // Creates the last level of `path` only. A private folder has its access list from the start.
  virtual ErrorCode MakeFolder(const std::wstring& path, NewFolder access) = 0;

  // Creates an empty file if there is none, and leaves an existing file untouched.
  virtual ErrorCode Touch(const std::wstring& path) = 0;

  // The whole file, if it is no larger than `maxBytes` (ERROR_FILE_TOO_LARGE otherwise).
  // ERROR_BAD_FILE_TYPE for a pipe or a device, as from Overwrite.
  virtual Result<std::vector<std::byte>> Read(const std::wstring& path,
                                              std::size_t maxBytes) const = 0;

  // Empties `path`, creating it if needed, and writes `content` in one write call.
  virtual ErrorCode Overwrite(const std::wstring& path, std::span<const std::byte> content) = 0;

  // Renames `from` to `to` in one step, replacing a file that is there.
  virtual ErrorCode MoveOver(const std::wstring& from, const std::wstring& to) = 0;

  virtual ErrorCode Remove(const std::wstring& path) = 0;

  // Opens `path` for reading with read sharing only. While the handle lives, the file cannot be
  // written, renamed or deleted. ERROR_BAD_FILE_TYPE for a pipe or a device.
  virtual Result<UniqueHandle> OpenReadLocked(const std::wstring& path) const = 0;

  // The SHA-256 of the file's content, 32 bytes. Reads the file in pieces.
  virtual Result<std::vector<std::byte>> Sha256(const std::wstring& path) const = 0;

  // Returns `path` as Windows interprets it before opening anything: slashes, "." and "..",
  // trailing dots and blanks. Looks at the text only, so the file need not exist.
  virtual Result<std::wstring> FullPath(const std::wstring& path) const = 0;

  // Whether `path`, which begins with a drive, is on a drive of another machine or of none.
  virtual bool IsElsewhere(const std::wstring& path) const = 0;

  // Returns where the existing file `path` really is, after links, mount points and short names,
  // without the "\\?\" in front.
  virtual Result<std::wstring> FinalPath(const std::wstring& path) const = 0;

  // The same for an open file.
  virtual Result<std::wstring> FinalPathOf(RawHandle file) const = 0;

  // The owner and the discretionary access list of a folder. Fails if it cannot be read or if there
  // is none.
  virtual Result<AccessList> FolderAccess(const std::wstring& folder) const = 0;

  // Opens the existing file `path` itself: a link is not followed.
  virtual Opened Open(const std::wstring& path, FileUse use) = 0;

  // Creates the file `path`, which must not exist, with the access list of the file `accessLike`,
  // or without such a file with the one that its folder gives. Open as for FileUse::Replace.
  virtual Opened Create(const std::wstring& path, const std::wstring& accessLike) = 0;

  // Returns the files whose paths consist of `path`, a dot and more, the last written first. Fails
  // unless the folder was listed to its end.
  virtual Result<std::vector<std::wstring>> Siblings(const std::wstring& path) const = 0;
};

}  // namespace Vx::Platform
