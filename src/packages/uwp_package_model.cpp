#include "host/uwp_package_model.h"

#include <new>
#include <stdexcept>
#include <string>
#include <utility>

#include "host/logging.h"
#include "json/utf8.h"
#include "packages/uwp_package.h"
#include "platform/console_user.h"
#include "platform/runtime/type_name.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kThrew[] = L"%S.%S threw exception %S";
constexpr wchar_t kNullArgument[] = L"a required argument is null";
constexpr wchar_t kNotPutAside[] = L"OpenThreadToken";
constexpr wchar_t kNotRestored[] = L"SetThreadToken";
constexpr wchar_t kNoRoom[] = L"the buffer is too small";

using Hresult = std::int32_t;

constexpr Hresult kOk = 0;
constexpr Hresult kPointer = static_cast<Hresult>(0x80004003);
constexpr Hresult kFail = static_cast<Hresult>(0x80004005);
constexpr Hresult kOutOfMemory = static_cast<Hresult>(0x8007000E);
constexpr Hresult kInvalidArgument = static_cast<Hresult>(0x80070057);
constexpr Hresult kInsufficientBuffer = static_cast<Hresult>(0x8007007A);

// Converts an error like HRESULT_FROM_WIN32. A negative code is already an HRESULT.
Hresult FromCode(std::uint32_t code) {
  constexpr std::uint32_t kWin32Facility = 0x80070000;
  if (static_cast<Hresult>(code) < 0) return static_cast<Hresult>(code);
  return static_cast<Hresult>(kWin32Facility | (code & 0xFFFF));
}

class ExportedPackageModel final : public UwpPackageModel {
 public:
  void* Destroy(unsigned flags) override {
    void* const address = this;
    this->~ExportedPackageModel();
    if ((flags & 1U) != 0) ::operator delete(address);
    return address;
  }

  Hresult FindPackageFullName(const wchar_t* familyName, wchar_t* buffer,
                              std::uint32_t* length) override {
    return ResultFromException(
        "FindPackageFullName", familyName != nullptr && length != nullptr, [&] {
          const std::wstring fullName = UwpPackage().FindPackageFullName(familyName);
          const auto needed = static_cast<std::uint32_t>(fullName.size() + 1);
          const std::uint32_t room = buffer != nullptr ? *length : 0;
          *length = needed;
          if (room < needed) return Refuse(kInsufficientBuffer, kNoRoom);
          fullName.copy(buffer, fullName.size());
          buffer[fullName.size()] = L'\0';
          return kOk;
        });
  }

  Hresult ShouldForceRegistration(const wchar_t* user, const wchar_t* fullName,
                                  std::int32_t* force) override {
    const bool complete = user != nullptr && fullName != nullptr && force != nullptr;
    return ResultFromException("ShouldForceRegistration", complete, [&] {
      *force = 0;
      *force = UwpPackage().ShouldForceRegistration(user, fullName) ? 1 : 0;
      return kOk;
    });
  }

  Hresult Register(const wchar_t* fullName) override {
    return ResultFromException("Register", fullName != nullptr, [&] {
      UwpPackage().Register(fullName);
      return kOk;
    });
  }

  Hresult GetOriginAndVersion(const wchar_t* familyName, std::int32_t* origin,
                              std::uint64_t* version) override {
    const bool complete = familyName != nullptr && origin != nullptr && version != nullptr;
    return ResultFromException("GetOriginAndVersion", complete, [&] {
      const auto found = UwpPackageDataAccess().GetOriginAndVersion(familyName);
      *origin = found.first;
      *version = found.second;
      return kOk;
    });
  }

  const wchar_t* LastError() override { return lastError.c_str(); }

 private:
  ~ExportedPackageModel() = default;

  Hresult Refuse(Hresult code, const wchar_t* reason) {
    lastError = reason;
    return code;
  }

  // Another compiler built the caller, so no exception may leave an operation.
  template <typename Operation>
  Hresult ResultFromException(const char* name, bool argumentsComplete,
                              Operation&& operation) noexcept {
    try {
      lastError.clear();
      if (!argumentsComplete) return Refuse(kPointer, kNullArgument);
      return AsProcess(std::forward<Operation>(operation));
    } catch (const PackageError& error) {
      return Report(name, FromCode(error.Code()), error.what());
    } catch (const std::invalid_argument& error) {
      return Report(name, kInvalidArgument, error.what());
    } catch (const std::bad_alloc&) {
      return kOutOfMemory;
    } catch (const std::exception& error) {
      return Report(name, kFail, error.what());
    } catch (...) {
      return kFail;
    }
  }

  // Runs `operation` with the process's identity and then restores the caller's.
  template <typename Operation>
  static Hresult AsProcess(Operation&& operation) {
    Platform::OwnIdentity own;
    if (own.Error() != 0) throw PackageError(kNotPutAside, own.Error());
    const auto restore = [&own] {
      const Platform::ErrorCode error = own.End();
      if (error != 0) throw PackageError(kNotRestored, error);
    };
    try {
      const Hresult result = operation();
      restore();
      return result;
    } catch (...) {
      restore();
      throw;
    }
  }

  Hresult Report(const char* operation, Hresult code, const char* text) noexcept {
    Logging::LogManager::SetProvider(Logging::kComponentProvider)
        ->LogError(kThrew, Platform::TypeName<UwpPackageModel>(), operation, text);
    try {
      lastError = Json::ToWide(text);
    } catch (const std::bad_alloc&) {
      lastError.clear();  // the caller receives only the code
    }
    return code;
  }

  std::wstring lastError;
};

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane

extern "C" Vx::Tessel::Server::Services::UwpPackageModel* CreateUwpPackageModel() noexcept {
  return new (std::nothrow) Vx::Tessel::Server::Services::Orvane::ExportedPackageModel();
}
