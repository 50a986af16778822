#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "platform/windows_runtime_error.h"

namespace Vx::Tessel::Server::Services::Orvane {

// what() is UTF-8: the failed call, its code in hexadecimal, and Windows' error text, if any.
class PackageError : public std::runtime_error {
 public:
  // `code` is a Win32 error or an HRESULT, whichever the call returned.
  PackageError(std::wstring_view call, std::uint32_t code, std::wstring_view details = {});

  // The message of `error` names the call.
  explicit PackageError(const Platform::WindowsRuntimeError& error);

  std::uint32_t Code() const noexcept { return errorCode; }

 private:
  std::uint32_t errorCode;
};

// Returns the full name of the first package of the family that the calling thread's user has, or
// an empty string if there is none. Throws PackageError.
std::wstring FirstPackageOf(const std::wstring& familyName);

// Finds and registers the console user's packaged apps. Stateless and thread-safe. Throws
// PackageError, whose text names the failed call and its code, or std::invalid_argument for a
// malformed name. An operation that acts as the user ends any impersonation by its caller.
class UwpPackage {
 public:
  // Returns the full name of the console user's package of the family, or an empty string.
  std::wstring FindPackageFullName(const std::wstring& familyName) const;

  // Returns whether `fullName` is staged but not registered for `user` ("domain\user"). Runs as the
  // service, because only administrators may query another user's packages.
  bool ShouldForceRegistration(const std::wstring& user, const std::wstring& fullName) const;

  // Registers the staged package for the console user. Blocks for up to two minutes.
  void Register(const std::wstring& fullName) const;
};

// Reads information about the console user's package in a given family. Stateless and thread-safe.
class UwpPackageDataAccess {
 public:
  // Returns the staged-package origin code and the version, with the major part in the high bits.
  // Acts as the console user, which ends any impersonation by the caller. Throws PackageError, with
  // ERROR_NOT_FOUND if the user has no such package.
  std::pair<std::int32_t, std::uint64_t> GetOriginAndVersion(const std::wstring& familyName) const;
};

}  // namespace Vx::Tessel::Server::Services::Orvane
