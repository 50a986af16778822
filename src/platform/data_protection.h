#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "platform/result.h"

namespace Vx::Platform {

// DPAPI with the local-machine flag, no entropy and no prompts. Thread-safe. Blocks while
// Windows encrypts or decrypts.
class DataProtection {
 public:
  virtual ~DataProtection() = default;

  // Encrypts `plain` so that any process on this machine, but no other machine, can decrypt it.
  virtual Result<std::vector<std::byte>> Protect(std::span<const std::byte> plain,
                                                 const std::wstring& description) const = 0;

  virtual Result<std::vector<std::byte>> Unprotect(std::span<const std::byte> sealed) const = 0;
};

}  // namespace Vx::Platform
