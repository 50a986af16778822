#pragma once

#include <stdint.h>

namespace Vx::Tessel::Server::Services {

// The package model for another module, whichever compiler built it: a table of slots, one entry
// each, with scalars and pointers only. Texts are NUL-terminated UTF-16. Used by one thread at a
// time. Every operation but the first and the last returns an HRESULT, negative for failure. Slot 5
// then returns the details.
//
// The process must run as Local System, because slots 1, 3 and 4 act as the user at the console and
// slot 2 asks for the packages of every user. The calling thread may impersonate a client: slots 1
// to 4 put that aside, whatever the client may do, and the thread impersonates with the same token
// when they return. If Windows refuses that, they fail, and the thread runs on as the process.
class UwpPackageModel {
 public:
  UwpPackageModel() = default;
  UwpPackageModel(const UwpPackageModel&) = delete;
  UwpPackageModel& operator=(const UwpPackageModel&) = delete;

  // Slot 0. Destroys the object; bit 0 of `flags` frees its memory too. Returns the object's
  // address. This is the entry of the other compiler's deleting destructor.
  virtual void* Destroy(unsigned flags) = 0;

  // Slot 1. The full name of the family's package that the console user has, or an empty text
  // without one. `*length` is the buffer's length in characters. It becomes the length that the
  // name needs, including the terminator, even if the buffer is too small (0x8007007A) or null.
  virtual int32_t FindPackageFullName(const wchar_t* familyName, wchar_t* buffer,
                                      uint32_t* length) = 0;

  // Slot 2. `*force` becomes 1 when the package is staged on the machine but not registered for
  // `user` ("domain\user"), else 0.
  virtual int32_t ShouldForceRegistration(const wchar_t* user, const wchar_t* fullName,
                                          int32_t* force) = 0;

  // Slot 3. Registers the staged package for the console user. Blocks for at most two minutes.
  virtual int32_t Register(const wchar_t* fullName) = 0;

  // Slot 4. The staged-package origin and the version of the family's package that the console user
  // has. The version is four 16-bit parts with major in the highest.
  virtual int32_t GetOriginAndVersion(const wchar_t* familyName, int32_t* origin,
                                      uint64_t* version) = 0;

  // Slot 5. Why the last operation failed, or an empty text after a success. Borrowed: valid until
  // the next operation or the end of the object.
  virtual const wchar_t* LastError() = 0;

 protected:
  ~UwpPackageModel() = default;
};

// The factory, exported under this name. Returns null without memory. Slot 0 frees the object.
using CreateUwpPackageModelFunction = UwpPackageModel* (*)();
inline constexpr char kCreateUwpPackageModelExport[] = "CreateUwpPackageModel";

}  // namespace Vx::Tessel::Server::Services

extern "C" Vx::Tessel::Server::Services::UwpPackageModel* CreateUwpPackageModel() noexcept;
