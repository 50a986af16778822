#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/result.h"

namespace Vx::Platform {

struct FileFacts {
  std::uint64_t size = 0;        // bytes
  std::uint32_t attributes = 0;  // FILE_ATTRIBUTE_ bits
  std::uint32_t names = 0;       // hard links, at least 1
  std::uint64_t created = 0;     // FILETIME, like `written`
  std::uint64_t written = 0;
};

// The purpose of opening a file. All uses share read access with other processes. Inspect, Read and
// Change also share write access. Inspect and Read also share delete access, which covers renames.
enum class FileUse {
  Inspect,  // facts and owner only, even if another process has exclusive access
  Read,
  Change,   // read and write
  Remove,   // read, rename and delete
  Replace,  // read, rename, delete, write and flush
};

// An open file. Use from one thread at a time. Errors are Win32 codes. Zero is success.
class FileHandle {
 public:
  virtual ~FileHandle() = default;

  virtual Result<FileFacts> Facts() const = 0;

  // Returns whether the owner is SYSTEM, the administrators or the account of this process.
  virtual Result<bool> HasTrustedOwner() const = 0;

  // Returns the whole content. Fails with ERROR_FILE_TOO_LARGE above `maxBytes`.
  virtual Result<std::vector<std::byte>> Content(std::size_t maxBytes) const = 0;

  // Writes `content` at the start of the file. A longer file keeps the rest.
  virtual ErrorCode Write(std::span<const std::byte> content) = 0;

  virtual ErrorCode SetSize(std::uint64_t size) = 0;

  // Returns once the written data is on disk. FlushFileBuffers needs write access.
  virtual ErrorCode Flush() = 0;

  // Renames the file in one step, replacing any file at `path`. Needs FileUse::Remove or Replace.
  virtual ErrorCode MoveOver(const std::wstring& path) = 0;

  // Deletes the file when it is closed. Needs FileUse::Remove or Replace.
  virtual ErrorCode Remove() = 0;
};

}  // namespace Vx::Platform
