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
  std::uint32_t names = 0;       // 1 unless the file has further hard links
  std::uint64_t created = 0;     // FILETIME scale, like the next
  std::uint64_t written = 0;
};

// What a file is opened for. Other processes may read it meanwhile. They may also write it during
// Inspect, Read and Change, and rename or delete it during Inspect and Read.
enum class FileUse {
  Inspect,  // only facts and owner, also if another process has the file to itself
  Read,
  Change,   // read and write
  Remove,   // read, rename and delete
  Replace,  // the same, and write and flush
};

// An open file, closed by the destructor. Use from one thread at a time. Errors are Win32 codes,
// zero is success.
class FileHandle {
 public:
  virtual ~FileHandle() = default;

  virtual Result<FileFacts> Facts() const = 0;

  // Whether the file belongs to SYSTEM, to the administrators or to the account of this process.
  virtual Result<bool> HasTrustedOwner() const = 0;

  // Returns the whole content if it has at most `maxBytes` (ERROR_FILE_TOO_LARGE otherwise).
  virtual Result<std::vector<std::byte>> Content(std::size_t maxBytes) const = 0;

  // Writes `content` over the front of the file. A longer file keeps its rest.
  virtual ErrorCode Write(std::span<const std::byte> content) = 0;

  // Cuts or extends the file.
  virtual ErrorCode SetSize(std::uint64_t size) = 0;

  // Returns when the disk holds what was written. Needs write access, by the documentation of
  // FlushFileBuffers.
  virtual ErrorCode Flush() = 0;

  // Renames the file to `path` in one step, replacing a file that is there. Needs FileUse::Remove
  // or FileUse::Replace.
  virtual ErrorCode MoveOver(const std::wstring& path) = 0;

  // Deletes the file when it is closed. Needs FileUse::Remove or FileUse::Replace.
  virtual ErrorCode Remove() = 0;
};

}  // namespace Vx::Platform
