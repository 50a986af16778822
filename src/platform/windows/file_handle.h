#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include <windows.h>

#include "platform/file_handle.h"
#include "platform/files.h"
#include "platform/unique_handle.h"

namespace Vx::Platform {

inline constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// Opens the file `path`, whose content or name others may control. The file must exist unless
// `disposition` says otherwise. `security` applies to a new file. FILE_FLAG_BACKUP_SEMANTICS in
// `flags` allows a folder. Sets the last error and returns null for anything not on a disk, because
// a pipe or a device could block its reader or writer forever. Passes SECURITY_SQOS_PRESENT,
// because a pipe's server could otherwise impersonate this process (see CreateFileW).
UniqueHandle OpenDiskFile(const std::wstring& path, DWORD access, DWORD share,
                          DWORD flags = FILE_ATTRIBUTE_NORMAL, DWORD disposition = OPEN_EXISTING,
                          SECURITY_ATTRIBUTES* security = nullptr);

// Renames an open file or folder in one step, replacing any file at `path`. Needs DELETE.
ErrorCode RenameTo(RawHandle file, const std::wstring& path);

// Returns whether `path` is fully qualified: neither a search path nor a current directory affects
// it.
inline bool IsFullPath(std::wstring_view path) noexcept {
  const auto separates = [](wchar_t c) { return c == L'\\' || c == L'/'; };
  if (path.find(L'\0') != std::wstring_view::npos) return false;
  if (path.size() < 3) return false;
  if (separates(path[0]) && separates(path[1])) return true;
  return path[1] == L':' && separates(path[2]);
}

// Returns the SID as text, or an empty string if it is null or invalid.
std::wstring SidText(PSID sid);

struct TokenUserBuffer {
  alignas(TOKEN_USER) std::byte bytes[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
};

// Returns the SID of the user of `token`, in `buffer`. Sets the last error and returns null on
// failure.
PSID UserOf(HANDLE token, TokenUserBuffer& buffer);

// Returns the token of this process, for queries.
Result<UniqueHandle> ProcessToken();

// See Files::FolderAccess. Needs READ_CONTROL.
Result<AccessList> AccessOf(RawHandle file);

// See FileHandle::Content and FileHandle::Write. `file` must be opened for synchronous access.
Result<std::vector<std::byte>> ReadContent(HANDLE file, std::size_t maxBytes);
ErrorCode WriteContent(HANDLE file, std::span<const std::byte> content);

Result<std::unique_ptr<FileHandle>> OpenFileHandle(const std::wstring& path, FileUse use);
Result<std::unique_ptr<FileHandle>> CreateFileHandle(const std::wstring& path,
                                                     const std::wstring& accessLike);

}  // namespace Vx::Platform
