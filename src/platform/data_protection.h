#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "platform/result.h"

namespace Vx::Platform {

// Encryption for this machine (DPAPI with the local-machine flag, no entropy, no prompt) and what
// belongs to it. Any thread; does not wait.
class DataProtection {
 public:
  virtual ~DataProtection() = default;

  // `plain` sealed so that any process of this machine, and no other machine, can open it.
  virtual Result<std::vector<std::byte>> Protect(std::span<const std::byte> plain,
                                                 const std::wstring& description) const = 0;

  virtual Result<std::vector<std::byte>> Unprotect(std::span<const std::byte> sealed) const = 0;

  // A new UUID as 36 lower-case characters with hyphens.
  virtual Result<std::wstring> NewUuid() const = 0;

  // The 32 bytes of the SHA-256 of a file's content, read in pieces.
  virtual Result<std::vector<std::byte>> FileSha256(const std::wstring& path) const = 0;
};

}  // namespace Vx::Platform
