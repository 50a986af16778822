#pragma once

#include <stdint.h>

namespace Vx::Tessel::Server::Services {

// Decides whether a client without the maker's manifest is tolerated. Another compiler builds the
// host, so the contract is this table of slots: one entry per function, in this order. All
// arguments are scalars or pointers, and nothing is thrown. No two slots share a name, because
// compilers order overloaded virtual functions differently.
//
// Stateless. Any thread may call, and no call waits. Results are Win32 error codes: 0 success, 87
// null argument, 8 out of memory, 31 any other failure. On success `*exempt` becomes 1 or 0.
// Otherwise it keeps its value.
class VxClientExemption {
 public:
  VxClientExemption() = default;
  VxClientExemption(const VxClientExemption&) = delete;
  VxClientExemption& operator=(const VxClientExemption&) = delete;

  // Slot 0. Destroys the object. Bit 0 of `flags` also frees its memory. Returns its address.
  virtual void* Destroy(unsigned flags) = 0;

  // Slot 1. A packaged client by its package family name (NUL-terminated UTF-16), case-sensitive.
  virtual uint32_t IsUwpExempt(const wchar_t* packageFamilyName, uint16_t majorVersion,
                               uint16_t minorVersion, int32_t* exempt) = 0;

  // Slot 2. A desktop client by its executable's name, without folder and extension (NUL-terminated
  // UTF-16). Lowercases the letters A to Z of `executableName` in place.
  virtual uint32_t IsWin32Exempt(wchar_t* executableName, uint16_t majorVersion,
                                 uint16_t minorVersion, int32_t* exempt) = 0;

 protected:
  ~VxClientExemption() = default;
};

// The factory, exported under this name. Returns null if out of memory. Slot 0 frees the object.
using CreateClientExemptionFunction = VxClientExemption* (*)();
inline constexpr char kCreateClientExemptionExport[] = "CreateClientExemption";

}  // namespace Vx::Tessel::Server::Services

extern "C" Vx::Tessel::Server::Services::VxClientExemption* CreateClientExemption();
