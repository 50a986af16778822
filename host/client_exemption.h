#pragma once

#include <stdint.h>

namespace Vx::Tessel::Server::Services {

// Decides whether a client without the maker's manifest is tolerated. Another compiler builds the
// host, so the contract is this table of slots: one entry per function, in this order. All
// arguments are scalars or pointers, and nothing is thrown. No two slots share a name, because
// compilers order overloaded virtual functions differently.
//
// Stateless and thread-safe. No call blocks. Results are Win32 error codes: 0 success, 87 null
// argument, 8 out of memory, 31 any other failure. Sets `*exempt` to 1 or 0 only on success.
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

  // Slot 2. Checks a desktop client by its executable's name, without the folder and the extension
  // (NUL-terminated UTF-16). Converts A to Z in `executableName` to lower case in place.
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
