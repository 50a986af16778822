#include "packages/uwp_package_data_access.h"

#include "packages/family_query.h"
#include "packages/package_error.h"
#include "platform/console_user.h"
#include "platform/machine.h"
#include "platform/packages.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr std::uint32_t kNotFound = 1168;  // ERROR_NOT_FOUND

std::pair<std::int32_t, std::uint64_t> ReadOriginAndVersion(const std::wstring& familyName) {
  const std::wstring fullName = FirstPackageOf(familyName);
  if (fullName.empty()) throw PackageError(L"FindPackagesByPackageFamily", kNotFound);
  const Platform::Packages& packages = *Platform::CurrentMachine().packages;
  const auto origin = packages.StagedOrigin(fullName);
  if (!origin) throw PackageError(L"GetStagedPackageOrigin", origin.Error());
  const auto version = packages.Version(fullName);
  if (!version) throw PackageError(L"PackageIdFromFullName", version.Error());
  return {*origin, *version};
}

}  // namespace

std::pair<std::int32_t, std::uint64_t> UwpPackageDataAccess::GetOriginAndVersion(
    const std::wstring& familyName) const {
  return Platform::AsConsoleUser(&ReportRefusedStep,
                                 [&] { return ReadOriginAndVersion(familyName); });
}

}  // namespace Vx::Tessel::Server::Services::Orvane
