#pragma once

#include <memory>
#include <string>

#include <windows.h>

#include "platform/file_handle.h"
#include "platform/unique_handle.h"

namespace Vx::Platform {

// Opens the file `path`, which a client may have chosen and which must exist unless `disposition`
// says otherwise, or with FILE_FLAG_BACKUP_SEMANTICS in `flags` a folder. Sets the last error and
// returns null for what is not a file on a disk: a pipe or a device could block a reader or a
// writer for ever. The quality of service keeps the server of a pipe from acting as this process:
// without SECURITY_SQOS_PRESENT a pipe's client lends its identity (CreateFileW,
// dwFlagsAndAttributes).
UniqueHandle OpenDiskFile(const std::wstring& path, DWORD access, DWORD share,
                          DWORD flags = FILE_ATTRIBUTE_NORMAL, DWORD disposition = OPEN_EXISTING);

// See Files::Open and Files::Create.
Result<std::unique_ptr<FileHandle>> OpenFileHandle(const std::wstring& path, FileUse use);
Result<std::unique_ptr<FileHandle>> CreateFileHandle(const std::wstring& path,
                                                     const std::wstring& accessLike);

}  // namespace Vx::Platform
