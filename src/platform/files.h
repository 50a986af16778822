#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/result.h"
#include "platform/unique_handle.h"

namespace Vx::Platform {

// One entry of an access list: only what the rules look at.
struct AccessEntry {
  bool allowed = false;  // an access-allowed entry
  std::uint32_t mask = 0;
  std::wstring accountName;  // empty when the SID has no account
  std::wstring accountDomain;
};

// Files and folders by full path. Every error is a Win32 code; zero is success.
class Files {
 public:
  virtual ~Files() = default;

  // The FILE_ATTRIBUTE_ bits of `path` itself (a link is not followed).
  virtual Result<std::uint32_t> Attributes(const std::wstring& path) const = 0;

  // Whether a directory search for exactly this name finds it (no wildcard is honoured).
  virtual bool ExistsByExactName(const std::wstring& path) const = 0;

  // Makes the last level of `path` only.
  virtual ErrorCode MakeFolder(const std::wstring& path) = 0;

  // Makes an empty file where there is none and leaves an existing one untouched.
  virtual ErrorCode Touch(const std::wstring& path) = 0;

  // The whole file, if it is no larger than `maxBytes` (ERROR_FILE_TOO_LARGE otherwise).
  virtual Result<std::vector<std::byte>> Read(const std::wstring& path,
                                              std::size_t maxBytes) const = 0;

  // Empties `path` (making it if need be) and writes `content` in one write call.
  virtual ErrorCode Overwrite(const std::wstring& path, std::span<const std::byte> content) = 0;

  // Renames `from` to `to`, replacing a file that is there, as one step.
  virtual ErrorCode MoveOver(const std::wstring& from, const std::wstring& to) = 0;

  virtual ErrorCode Remove(const std::wstring& path) = 0;

  // `path` open for reading with read sharing only: while the handle lives nobody can write,
  // rename or delete the file.
  virtual Result<UniqueHandle> OpenReadLocked(const std::wstring& path) const = 0;

  // The 32 bytes of the SHA-256 of a file's content, read in pieces.
  virtual Result<std::vector<std::byte>> Sha256(const std::wstring& path) const = 0;

  // `path` as Windows reads it before it opens anything: slashes, "." and "..", trailing dots and
  // blanks. Looks at the text only; the file need not exist.
  virtual Result<std::wstring> FullPath(const std::wstring& path) const = 0;

  // Where the existing file `path` lies once links, mount points and short names are followed,
  // without the "\\?\" in front.
  virtual Result<std::wstring> FinalPath(const std::wstring& path) const = 0;

  // The same of an open file.
  virtual Result<std::wstring> FinalPathOf(RawHandle file) const = 0;

  // The discretionary access list of a folder; an error when it cannot be read or there is none.
  virtual Result<std::vector<AccessEntry>> FolderAccess(const std::wstring& folder) const = 0;
};

}  // namespace Vx::Platform
