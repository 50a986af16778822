#include "exemption/manifest_check_criteria.h"

#include <algorithm>
#include <utility>

namespace Vx::Tessel::Security {

namespace {

template <typename Information>
bool IsVersionCovered(const Information& caller, const Information& listed) {
  return caller.majorVersion < listed.majorVersion ||
         (caller.majorVersion == listed.majorVersion && caller.minorVersion <= listed.minorVersion);
}

// Converts only A to Z. Full case folding would map other letters to these, so that a name with
// such letters would match a listed one.
wchar_t ToLower(wchar_t c) {
  return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c - L'A' + L'a') : c;
}

}  // namespace

UwpWithNoVxManifestCheckBasedOnMajorAndMinorVersion::
    UwpWithNoVxManifestCheckBasedOnMajorAndMinorVersion(
        std::shared_ptr<std::vector<UwpMatchingDescriptor>> whiteList,
        std::shared_ptr<Server::Uwp::UwpInformation> client)
    : list(std::move(whiteList)), caller(std::move(client)) {}

bool UwpWithNoVxManifestCheckBasedOnMajorAndMinorVersion::IsAnException() {
  if (!list || !caller) return false;
  return std::any_of(list->begin(), list->end(), [this](const UwpMatchingDescriptor& row) {
    return row.information.packageFamilyName == caller->packageFamilyName &&
           IsVersionCovered(*caller, row.information);
  });
}

Win32WithNoVxManifestCheckBasedOnMajorAndMinorVersion::
    Win32WithNoVxManifestCheckBasedOnMajorAndMinorVersion(
        std::shared_ptr<std::vector<Win32MatchingDescriptor>> whiteList,
        std::shared_ptr<Server::Win32::Win32Information> client)
    : list(std::move(whiteList)), caller(std::move(client)) {}

bool Win32WithNoVxManifestCheckBasedOnMajorAndMinorVersion::IsAnException() {
  if (!list || !caller || list->empty()) return false;
  std::wstring& name = caller->executableName;
  std::transform(name.begin(), name.end(), name.begin(), &ToLower);
  return std::any_of(list->begin(), list->end(), [&](const Win32MatchingDescriptor& row) {
    return row.information.executableName == name && IsVersionCovered(*caller, row.information);
  });
}

}  // namespace Vx::Tessel::Security
