#pragma once

#include <stdint.h>

namespace Vx::Tessel::Server::Services {

// Package functions for other modules, built by any compiler: a vtable with one slot per function.
// All arguments are scalars or pointers. Strings are NUL-terminated UTF-16. Use from one thread at
// a time. Slots 1 to 4 return an HRESULT, negative on failure. Slot 5 then returns details.
//
// The process must run as Local System, because slots 1, 3 and 4 act as the console user and slot 2
// queries every user's packages. The calling thread may impersonate a client. Slots 1 to 4 suspend
// the impersonation, whatever the client's rights, and resume it with the same token before they
// return. If it cannot be resumed, they fail and leave the thread with the process's identity.
class UwpPackageModel {
 public:
  UwpPackageModel() = default;
  UwpPackageModel(const UwpPackageModel&) = delete;
  UwpPackageModel& operator=(const UwpPackageModel&) = delete;

  // Slot 0. Destroys the object and, if bit 0 of `flags` is set, frees it. Returns its address.
  // Replaces the other compiler's deleting destructor.
  virtual void* Destroy(unsigned flags) = 0;

  // Slot 1. Copies to `buffer` the full name of the console user's package in the family, or "".
  // `*length` is the buffer's length in characters. It is set to the required length, including the
  // terminator, even if the buffer is null or too small (0x8007007A).
  virtual int32_t FindPackageFullName(const wchar_t* familyName, wchar_t* buffer,
                                      uint32_t* length) = 0;

  // Slot 2. Sets `*force` to 1 if the package is staged but not registered for `user`
  // ("domain\user"), and to 0 otherwise.
  virtual int32_t ShouldForceRegistration(const wchar_t* user, const wchar_t* fullName,
                                          int32_t* force) = 0;

  // Slot 3. Registers the staged package for the console user. Blocks for up to two minutes.
  virtual int32_t Register(const wchar_t* fullName) = 0;

  // Slot 4. Returns the staged-package origin and version of the console user's package in the
  // family. The version has four 16-bit parts, with the major version in the highest bits.
  virtual int32_t GetOriginAndVersion(const wchar_t* familyName, int32_t* origin,
                                      uint64_t* version) = 0;

  // Slot 5. Returns why the last operation failed, or "". Valid until the next operation.
  virtual const wchar_t* LastError() = 0;

 protected:
  ~UwpPackageModel() = default;
};

// The exported factory. Returns null if out of memory. Slot 0 frees the object.
using CreateUwpPackageModelFunction = UwpPackageModel* (*)();
inline constexpr char kCreateUwpPackageModelExport[] = "CreateUwpPackageModel";

}  // namespace Vx::Tessel::Server::Services

extern "C" Vx::Tessel::Server::Services::UwpPackageModel* CreateUwpPackageModel() noexcept;
