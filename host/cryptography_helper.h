#pragma once

#include <stdint.h>

namespace Vx::Tessel::Server::Services {

// Cryptography that the module offers to the host: encrypts data for this machine and hashes files.
//
// As with VxService, the contract is this vtable, because the host is built with another compiler:
// one slot per function, in this order. All arguments are scalars or pointers, and no function
// throws. Thread-safe. Blocks while reading a file and while Windows encrypts or decrypts. Returns
// Win32 error codes: 0 for success, 87 for a null argument, 8 if out of memory, 31 for a failure
// that has no code of its own, otherwise Windows' error. Sets outputs only on success.
class VxCryptographyHelper {
 public:
  VxCryptographyHelper() = default;
  VxCryptographyHelper(const VxCryptographyHelper&) = delete;
  VxCryptographyHelper& operator=(const VxCryptographyHelper&) = delete;

  // Slot 0. Destroys the object and, if bit 0 of `flags` is set, frees it. Returns its address.
  virtual void* Destroy(unsigned flags) = 0;

  // Slot 1. Encrypts `size` bytes so that any process on this machine, but on no other, can decrypt
  // them. `description` (NUL-terminated, may be null) is stored in plain text. Slot 4 frees the
  // result.
  virtual uint32_t Protect(const void* plain, uint32_t size, const wchar_t* description,
                           void** result, uint32_t* resultSize) = 0;

  // Slot 2. Decrypts data encrypted by slot 1. Slot 4 frees the result.
  virtual uint32_t Unprotect(const void* sealed, uint32_t size, void** result,
                             uint32_t* resultSize) = 0;

  // Slot 3. Writes the 32-byte SHA-256 of a file's content to `digest`.
  virtual uint32_t FileSha256(const wchar_t* path, unsigned char* digest) = 0;

  // Slot 4. Frees a result. Null is allowed.
  virtual void FreeResult(void* result) = 0;

 protected:
  ~VxCryptographyHelper() = default;
};

// The exported factory. Returns null if out of memory. Slot 0 frees the object.
using CreateCryptographyHelperFunction = VxCryptographyHelper* (*)();
inline constexpr char kCreateCryptographyHelperExport[] = "CreateCryptographyHelper";

}  // namespace Vx::Tessel::Server::Services

extern "C" Vx::Tessel::Server::Services::VxCryptographyHelper* CreateCryptographyHelper();
