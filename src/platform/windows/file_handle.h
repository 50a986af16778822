#pragma once

#include <memory>
#include <string>

#include <windows.h>

#include "platform/file_handle.h"
#include "platform/files.h"
#include "platform/unique_handle.h"

namespace Vx::Platform {

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

// Returns the SID as text, or an empty string if it is null or invalid.
std::wstring SidText(PSID sid);

// See Files::FolderAccess. Needs READ_CONTROL.
Result<AccessList> AccessOf(RawHandle file);

// See FileHandle::Content and FileHandle::Write. `file` must be opened for synchronous access.
Result<std::vector<std::byte>> ReadContent(HANDLE file, std::size_t maxBytes);
ErrorCode WriteContent(HANDLE file, std::span<const std::byte> content);

Result<std::unique_ptr<FileHandle>> OpenFileHandle(const std::wstring& path, FileUse use);
Result<std::unique_ptr<FileHandle>> CreateFileHandle(const std::wstring& path,
                                                     const std::wstring& accessLike);

}  // namespace Vx::Platform
