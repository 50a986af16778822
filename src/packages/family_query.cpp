#include "packages/family_query.h"

#include <algorithm>
#include <stdexcept>

#include "packages/package_error.h"
#include "platform/machine.h"
#include "platform/packages.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kFindByFamily[] = L"FindPackagesByPackageFamily";
constexpr std::uint32_t kSuccess = 0;
constexpr std::uint32_t kInsufficientBuffer = 122;  // ERROR_INSUFFICIENT_BUFFER

constexpr std::ptrdiff_t kFullNameSeparators = 4;

}  // namespace

std::wstring FirstPackageOf(const std::wstring& familyName) {
  const auto found = Platform::CurrentMachine().packages->FindByFamily(familyName);
  // The size query fails with "too small" if there are packages and succeeds if there are none.
  if (found.sizeError != kSuccess && found.sizeError != kInsufficientBuffer) {
    throw PackageError(kFindByFamily, found.sizeError);
  }
  if (found.error != kSuccess) throw PackageError(kFindByFamily, found.error);
  return found.fullNames.empty() ? std::wstring() : found.fullNames.front();
}

std::wstring FamilyOf(const std::wstring& fullName) {
  if (std::count(fullName.begin(), fullName.end(), L'_') != kFullNameSeparators) {
    throw std::invalid_argument("not a package full name");
  }
  return fullName.substr(0, fullName.find(L'_')) + fullName.substr(fullName.rfind(L'_'));
}

}  // namespace Vx::Tessel::Server::Services::Orvane
