#pragma once

#include <stdint.h>

namespace Vx::Tessel::Server::Services {

// The package model as another module sees it, whichever compiler built that: a table of slots, one
// entry each, with scalars and pointers only. Texts are NUL-terminated UTF-16. Used by one thread
// at a time. Every operation but the first answers an HRESULT, negative for failure; slot 5 then
// tells more.
class UwpPackageModel {
 public:
  UwpPackageModel() = default;
  UwpPackageModel(const UwpPackageModel&) = delete;
  UwpPackageModel& operator=(const UwpPackageModel&) = delete;

  // Slot 0. Destroys the object; bit 0 of `flags` frees its memory too. Returns the object's
  // address. It takes the one entry of the other compiler's deleting destructor.
  virtual void* Destroy(unsigned flags) = 0;

  // Slot 1. The full name of the family's package that the console user has. `*length` is the
  // buffer's length in characters; it becomes what the name needs, the terminator included, also
  // when the buffer is too small (0x8007007A) or null. No package: an empty text.
  virtual int32_t FindPackageFullName(const wchar_t* familyName, wchar_t* buffer,
                                      uint32_t* length) = 0;

  // Slot 2. `*force` becomes 1 when the package is staged on the machine but not registered for
  // `user` ("domain\user"), else 0.
  virtual int32_t ShouldForceRegistration(const wchar_t* user, const wchar_t* fullName,
                                          int32_t* force) = 0;

  // Slot 3. Registers the staged package for the console user; blocks for two minutes at most.
  virtual int32_t Register(const wchar_t* fullName) = 0;

  // Slot 4. The staged-package origin of Windows, and the version as four 16-bit parts with major
  // highest, of the family's package that the console user has.
  virtual int32_t GetOriginAndVersion(const wchar_t* familyName, int32_t* origin,
                                      uint64_t* version) = 0;

  // Slot 5. What the last operation failed of, empty after a success. Borrowed: it lives until the
  // next operation or the end of the object.
  virtual const wchar_t* LastError() = 0;

 protected:
  ~UwpPackageModel() = default;
};

// The factory, exported under this name; null when there is no memory. The object is freed through
// slot 0.
using CreateUwpPackageModelFunction = UwpPackageModel* (*)();
inline constexpr char kCreateUwpPackageModelExport[] = "CreateUwpPackageModel";

}  // namespace Vx::Tessel::Server::Services

extern "C" Vx::Tessel::Server::Services::UwpPackageModel* CreateUwpPackageModel() noexcept;
