#pragma once

#include <stdint.h>

namespace Vx::Tessel::Server::Services {

// Decides whether to exempt a client that lacks the maker's manifest. The host is built with
// another compiler, so the contract is this vtable: one slot per function, in this order. All
// arguments are scalars or pointers, and no function throws. No two slots share a name, because
// compilers order overloaded virtual functions differently.
//
// Stateless and thread-safe. Never blocks. Returns Win32 error codes: 0 for success, 87 for a null
// argument, 8 if out of memory, 31 otherwise. Sets `*exempt` to 1 or 0 only on success.
class VxClientExemption {
 public:
  VxClientExemption() = default;
  VxClientExemption(const VxClientExemption&) = delete;
  VxClientExemption& operator=(const VxClientExemption&) = delete;

  // Slot 0. Destroys the object and, if bit 0 of `flags` is set, frees it. Returns its address.
  virtual void* Destroy(unsigned flags) = 0;

  // Slot 1. Checks a packaged client by its family name (NUL-terminated UTF-16, case-sensitive).
  virtual uint32_t IsUwpExempt(const wchar_t* packageFamilyName, uint16_t majorVersion,
                               uint16_t minorVersion, int32_t* exempt) = 0;

  // Slot 2. Checks a desktop client by its executable's name, without the folder or extension
  // (NUL-terminated UTF-16). Converts A to Z in `executableName` to lowercase in place.
  virtual uint32_t IsWin32Exempt(wchar_t* executableName, uint16_t majorVersion,
                                 uint16_t minorVersion, int32_t* exempt) = 0;

 protected:
  ~VxClientExemption() = default;
};

// The exported factory. Returns null if out of memory. Slot 0 frees the object.
using CreateClientExemptionFunction = VxClientExemption* (*)();
inline constexpr char kCreateClientExemptionExport[] = "CreateClientExemption";

}  // namespace Vx::Tessel::Server::Services

extern "C" Vx::Tessel::Server::Services::VxClientExemption* CreateClientExemption();
