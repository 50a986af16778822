#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "platform/data_protection.h"
#include "platform/machine.h"
#include "platform/result.h"

namespace Vx::Platform {

// What the module does with cryptography, and nothing else: data kept for this machine, and the
// digest of a file. The store seals and opens its file with it, and the host gets it through the
// export CreateCryptographyHelper; it lives below both, which may not include each other.
//
// Keeps no state; any thread; does not wait. Errors are Win32 codes.
class CryptographyHelper {
 public:
  // `plain` sealed so that any process of this machine, and no other machine, can open it.
  // `description` is stored readable beside it.
  Result<std::vector<std::byte>> Protect(std::span<const std::byte> plain,
                                         const std::wstring& description) const {
    return CurrentMachine().dataProtection->Protect(plain, description);
  }

  Result<std::vector<std::byte>> Unprotect(std::span<const std::byte> sealed) const {
    return CurrentMachine().dataProtection->Unprotect(sealed);
  }

  // The 32 bytes of the SHA-256 of a file's content.
  Result<std::vector<std::byte>> FileSha256(const std::wstring& path) const {
    return CurrentMachine().dataProtection->FileSha256(path);
  }
};

}  // namespace Vx::Platform
