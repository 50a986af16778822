#include "platform/packages.h"

#include "platform/windows/capabilities.h"
#include "platform/windows/package_catalog.h"
#include "platform/windows/package_deployment.h"
#include "platform/windows/package_queries.h"

namespace Vx::Platform {

namespace {

class RealPackages final : public Packages {
 public:
  FamilyQuery FindByFamily(const std::wstring& familyName) const override {
    return QueryFamily(ResolveAppModel(), familyName);
  }

  PathQuery PathByFullName(const std::wstring& fullName) const override {
    return QueryPath(ResolveAppModel(), fullName);
  }

  Result<std::int32_t> StagedOrigin(const std::wstring& fullName) const override {
    return QueryOrigin(ResolveAppModel(), fullName);
  }

  Result<std::uint64_t> Version(const std::wstring& fullName) const override {
    return QueryVersion(ResolveAppModel(), fullName);
  }

  std::vector<std::wstring> FindForAllUsers(const std::wstring& familyName) const override {
    return FamilyPackagesOfMachine(familyName);
  }

  Result<std::wstring> AccountSid(const std::wstring& account) const override {
    return QueryAccountSid(account);
  }

  std::vector<std::wstring> FindForUser(const std::wstring& sid,
                                        const std::wstring& familyName) const override {
    return FamilyPackagesOfUser(sid, familyName);
  }

  PackageRegistration Register(const std::wstring& fullName,
                               std::chrono::milliseconds limit) override {
    return RegisterStagedPackage(fullName, limit);
  }

  std::shared_ptr<PackageCatalog> OpenCatalogForCurrentUser() override {
    return OpenWindowsPackageCatalog();
  }
};

}  // namespace

Packages& WindowsPackages() {
  static RealPackages packages;
  return packages;
}

}  // namespace Vx::Platform
