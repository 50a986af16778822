#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/result.h"

namespace Vx::Platform {

// One uninstalling notification of a package catalog. Lives only while its handler runs.
class PackageUninstall {
 public:
  virtual ~PackageUninstall() = default;

  // Both throw WindowsRuntimeError when Windows refuses.
  virtual std::wstring FamilyName() const = 0;
  virtual bool IsComplete() const = 0;
};

// The packages of one user, watched. Released on any thread.
class PackageCatalog {
 public:
  using UninstallingHandler = std::function<void(const PackageUninstall&)>;
  using Token = std::int64_t;

  virtual ~PackageCatalog() = default;

  // `handler` is called on the system's own threads, several times an uninstall, until it is
  // removed again; it must not throw. Throws WindowsRuntimeError.
  virtual Token AddUninstalling(UninstallingHandler handler) = 0;

  // After this call no new notification starts; one that runs already may still be running.
  virtual void RemoveUninstalling(Token token) noexcept = 0;
};

struct PackageRegistration {
  std::int32_t result = 0;  // HRESULT of the deployment
  std::wstring errorText;   // the deployment's own words; empty on success
};

// Packaged apps. The Win32 queries see the user whom the calling thread acts as; the deployment
// queries speak to Windows' package manager and throw WindowsRuntimeError when it refuses.
class Packages {
 public:
  virtual ~Packages() = default;

  // Full names of the family's packages (head, direct, resource and bundle: filter 0xF0).
  struct FamilyQuery {
    std::uint32_t sizeError = 0;     // status of the call that learns the size
    std::uint32_t bufferLength = 0;  // characters; 0 when there is none
    std::uint32_t error = 0;         // status of the call that fetches
    std::vector<std::wstring> fullNames;
  };
  virtual FamilyQuery FindByFamily(const std::wstring& familyName) const = 0;

  struct PathQuery {
    std::uint32_t sizeError = 0;
    std::uint32_t error = 0;
    std::wstring path;
  };
  virtual PathQuery PathByFullName(const std::wstring& fullName) const = 0;

  // The staged-package origin code of Windows.
  virtual Result<std::int32_t> StagedOrigin(const std::wstring& fullName) const = 0;

  // The version in a full name: four 16-bit parts, major highest.
  virtual Result<std::uint64_t> Version(const std::wstring& fullName) const = 0;

  // Full names of the family's packages on the whole machine (needs administrator rights).
  virtual std::vector<std::wstring> FindForAllUsers(const std::wstring& familyName) const = 0;

  // The SID, as text, of the account "domain\user". May ask a domain controller, and so block.
  virtual Result<std::wstring> AccountSid(const std::wstring& account) const = 0;

  // Full names of the family's packages that the user with this SID has registered; an empty SID is
  // the calling user.
  virtual std::vector<std::wstring> FindForUser(const std::wstring& sid,
                                                const std::wstring& familyName) const = 0;

  // Registers a staged package for the calling user; blocks until the deployment ends or `limit` is
  // over (then result is HRESULT_FROM_WIN32(ERROR_TIMEOUT)).
  virtual PackageRegistration Register(const std::wstring& fullName,
                                       std::chrono::milliseconds limit) = 0;

  // The catalog of the user whom the calling thread acts as.
  virtual std::shared_ptr<PackageCatalog> OpenCatalogForCurrentUser() = 0;
};

}  // namespace Vx::Platform
