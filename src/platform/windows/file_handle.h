#pragma once

#include <memory>
#include <string>

#include "platform/file_handle.h"

namespace Vx::Platform {

// See Files::Open and Files::Create.
Result<std::unique_ptr<FileHandle>> OpenFileHandle(const std::wstring& path, FileUse use);
Result<std::unique_ptr<FileHandle>> CreateFileHandle(const std::wstring& path,
                                                     const std::wstring& accessLike);

}  // namespace Vx::Platform
