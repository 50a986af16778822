#pragma once

#include <stdint.h>

namespace Vx::Tessel::Server::Services {

// The package model for another module, built by any compiler: a table of slots, one entry each,
// with scalars and pointers only. Texts are NUL-terminated UTF-16. Use from one thread at a time.
// Every operation but the first and the last returns an HRESULT, negative for failure. Slot 5 then
// returns the details.
//
// The process must run as Local System, because slots 1, 3 and 4 act as the console user and slot 2
// queries every user's packages. The calling thread may impersonate a client. Slots 1 to 4 suspend
// that, whatever the client's rights, and resume it with the same token before they return. If
// Windows refuses, they fail and the thread keeps running as the process.
class UwpPackageModel {
 public:
  UwpPackageModel() = default;
  UwpPackageModel(const UwpPackageModel&) = delete;
  UwpPackageModel& operator=(const UwpPackageModel&) = delete;

  // Slot 0. Destroys the object. Bit 0 of `flags` also frees its memory. Returns its address. Takes
  // the place of the other compiler's deleting destructor.
  virtual void* Destroy(unsigned flags) = 0;

  // Slot 1. The full name of the console user's package of the family, or an empty text. `*length`
  // is the buffer's length in characters. It becomes the required length with the terminator, even
  // if the buffer is null or too small (0x8007007A).
  virtual int32_t FindPackageFullName(const wchar_t* familyName, wchar_t* buffer,
                                      uint32_t* length) = 0;

  // Slot 2. `*force` becomes 1 if the package is staged but not registered for "domain\user", or 0.
  virtual int32_t ShouldForceRegistration(const wchar_t* user, const wchar_t* fullName,
                                          int32_t* force) = 0;

  // Slot 3. Registers the staged package for the console user. Blocks for at most two minutes.
  virtual int32_t Register(const wchar_t* fullName) = 0;

  // Slot 4. The staged-package origin and the version of the console user's package of the family.
  // The version is four 16-bit parts, major highest.
  virtual int32_t GetOriginAndVersion(const wchar_t* familyName, int32_t* origin,
                                      uint64_t* version) = 0;

  // Slot 5. Why the last operation failed, or an empty text. Valid until the next operation.
  virtual const wchar_t* LastError() = 0;

 protected:
  ~UwpPackageModel() = default;
};

// The factory, exported under this name. Returns null if out of memory. Slot 0 frees the object.
using CreateUwpPackageModelFunction = UwpPackageModel* (*)();
inline constexpr char kCreateUwpPackageModelExport[] = "CreateUwpPackageModel";

}  // namespace Vx::Tessel::Server::Services

extern "C" Vx::Tessel::Server::Services::UwpPackageModel* CreateUwpPackageModel() noexcept;
