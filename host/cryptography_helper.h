#pragma once

#include <stdint.h>

namespace Vx::Tessel::Server::Services {

// Cryptography of the module for the host: data sealed for this machine, and the digest of a file.
//
// The host is built with another compiler, so as with VxService the contract is this table of
// slots: one entry per function, in this order. All arguments are scalars or pointers, and nothing
// is thrown. Any thread may call, and no call waits. Results are Win32 error codes: 0 success, 87
// for a null argument, 8 without memory, 31 for a failure without a code of its own, otherwise the
// error of Windows. Outputs are written on success only.
class VxCryptographyHelper {
 public:
  VxCryptographyHelper() = default;
  VxCryptographyHelper(const VxCryptographyHelper&) = delete;
  VxCryptographyHelper& operator=(const VxCryptographyHelper&) = delete;

  // Slot 0. Destroys the object; bit 0 of `flags` frees its memory too. Returns the object's
  // address.
  virtual void* Destroy(unsigned flags) = 0;

  // Slot 1. Seals `size` bytes so that every process of this machine can open them, but no other
  // machine can. `description` (NUL-terminated, may be null) is stored beside them in plain text.
  // Slot 4 frees the result.
  virtual uint32_t Protect(const void* plain, uint32_t size, const wchar_t* description,
                           void** result, uint32_t* resultSize) = 0;

  // Slot 2. Opens what slot 1 sealed. Slot 4 frees the result.
  virtual uint32_t Unprotect(const void* sealed, uint32_t size, void** result,
                             uint32_t* resultSize) = 0;

  // Slot 3. The SHA-256 of a file's content; `digest` has room for its 32 bytes.
  virtual uint32_t FileSha256(const wchar_t* path, unsigned char* digest) = 0;

  // Slot 4. Frees a result, which may be null.
  virtual void FreeResult(void* result) = 0;

 protected:
  ~VxCryptographyHelper() = default;
};

// The factory, exported under this name. Returns null without memory. Slot 0 frees the object.
using CreateCryptographyHelperFunction = VxCryptographyHelper* (*)();
inline constexpr char kCreateCryptographyHelperExport[] = "CreateCryptographyHelper";

}  // namespace Vx::Tessel::Server::Services

extern "C" Vx::Tessel::Server::Services::VxCryptographyHelper* CreateCryptographyHelper();
