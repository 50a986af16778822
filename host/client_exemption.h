#pragma once

#include <stdint.h>

namespace Vx::Tessel::Server::Services {

// Whether a client without the maker's manifest is tolerated, for a host built with another
// compiler: the contract is the table of slots, each function one entry, in this order, all
// arguments scalars or pointers, nothing thrown. Compilers order overloaded virtual functions
// differently, so no two slots share a name.
//
// The object keeps no state between calls; any thread may call, and no call waits. Results are
// Win32 error codes: 0 success, 87 for a null argument, 8 without memory. `*exempt` becomes 1 or 0
// on success and is left alone otherwise.
class VxClientExemption {
 public:
  VxClientExemption() = default;
  VxClientExemption(const VxClientExemption&) = delete;
  VxClientExemption& operator=(const VxClientExemption&) = delete;

  // Slot 0. Destroys the object; bit 0 of `flags` frees its memory too. Returns the object's
  // address.
  virtual void* Destroy(unsigned flags) = 0;

  // Slot 1. A packaged client by its package family name (NUL-terminated UTF-16). Letter case
  // counts.
  virtual uint32_t IsUwpExempt(const wchar_t* packageFamilyName, uint16_t majorVersion,
                               uint16_t minorVersion, int32_t* exempt) = 0;

  // Slot 2. A desktop client by its executable's name, without folder and extension
  // (NUL-terminated UTF-16). The letters A to Z in `executableName` are turned to lower case in
  // place and stay so.
  virtual uint32_t IsWin32Exempt(wchar_t* executableName, uint16_t majorVersion,
                                 uint16_t minorVersion, int32_t* exempt) = 0;

 protected:
  ~VxClientExemption() = default;
};

// The factory, exported under this name; null without memory. The object is freed through slot 0.
using CreateClientExemptionFunction = VxClientExemption* (*)();
inline constexpr char kCreateClientExemptionExport[] = "CreateClientExemption";

}  // namespace Vx::Tessel::Server::Services

extern "C" Vx::Tessel::Server::Services::VxClientExemption* CreateClientExemption();
