#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/result.h"

namespace Vx::Platform {

// An uninstall notification from a package catalog. Valid only while its handler runs.
class PackageUninstall {
 public:
  virtual ~PackageUninstall() = default;

  // Both throw WindowsRuntimeError on failure.
  virtual std::wstring FamilyName() const = 0;
  virtual bool IsComplete() const = 0;
};

// Watches one user's packages. May be released on any thread.
class PackageCatalog {
 public:
  using UninstallingHandler = std::function<void(const PackageUninstall&)>;
  using Token = std::int64_t;

  virtual ~PackageCatalog() = default;

  // Calls `handler` on system threads, several times per uninstall, until it is removed. The
  // handler must not throw. Throws WindowsRuntimeError.
  virtual Token AddUninstalling(UninstallingHandler handler) = 0;

  // Prevents new notifications. One that has already started may still be running.
  virtual void RemoveUninstalling(Token token) noexcept = 0;
};

struct PackageRegistration {
  std::int32_t result = 0;  // HRESULT of the deployment
  std::wstring errorText;   // the deployment's own description; empty on success
};

// Packaged apps. The Win32 queries apply to the user that the calling thread acts as. The
// deployment queries use Windows' package manager and throw WindowsRuntimeError if it fails.
class Packages {
 public:
  virtual ~Packages() = default;

  // The full names of the family's packages (head, direct, resource and bundle: filter 0xF0).
  struct FamilyQuery {
    std::uint32_t sizeError = 0;     // status of the call that returns the size
    std::uint32_t bufferLength = 0;  // characters; 0 if there are no packages
    std::uint32_t error = 0;         // status of the call that returns the names
    std::vector<std::wstring> fullNames;
  };
  virtual FamilyQuery FindByFamily(const std::wstring& familyName) const = 0;

  struct PathQuery {
    std::uint32_t sizeError = 0;
    std::uint32_t error = 0;
    std::wstring path;
  };
  virtual PathQuery PathByFullName(const std::wstring& fullName) const = 0;

  // Returns Windows' staged-package origin code.
  virtual Result<std::int32_t> StagedOrigin(const std::wstring& fullName) const = 0;

  // Returns the version in a full name: four 16-bit parts, with the major version in the high bits.
  virtual Result<std::uint64_t> Version(const std::wstring& fullName) const = 0;

  // Returns the full names of the family's packages for all users (needs administrator rights).
  virtual std::vector<std::wstring> FindForAllUsers(const std::wstring& familyName) const = 0;

  // Returns, as text, the SID of the user or group named `account` ("domain\user"). May block while
  // Windows queries a domain controller.
  virtual Result<std::wstring> AccountSid(const std::wstring& account) const = 0;

  // Returns the full names registered for the user with this SID. Empty means the calling user.
  virtual std::vector<std::wstring> FindForUser(const std::wstring& sid,
                                                const std::wstring& familyName) const = 0;

  // Registers a staged package for the calling user. Blocks until the deployment ends. If `limit`
  // passes first, the result is HRESULT_FROM_WIN32(ERROR_TIMEOUT).
  virtual PackageRegistration Register(const std::wstring& fullName,
                                       std::chrono::milliseconds limit) = 0;

  // Opens the catalog of the user that the calling thread acts as.
  virtual std::shared_ptr<PackageCatalog> OpenCatalogForCurrentUser() = 0;
};

}  // namespace Vx::Platform
