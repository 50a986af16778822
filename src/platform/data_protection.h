#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "platform/result.h"

namespace Vx::Platform {

// Encryption for this machine: DPAPI with the local-machine flag, no entropy, no prompt. Any
// thread; does not wait.
class DataProtection {
 public:
  virtual ~DataProtection() = default;

  // `plain` sealed so that any process of this machine, and no other machine, can open it.
  virtual Result<std::vector<std::byte>> Protect(std::span<const std::byte> plain,
                                                 const std::wstring& description) const = 0;

  virtual Result<std::vector<std::byte>> Unprotect(std::span<const std::byte> sealed) const = 0;
};

}  // namespace Vx::Platform
