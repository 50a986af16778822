#include "packages/uwp_package.h"

#include <algorithm>
#include <chrono>
#include <string_view>
#include <vector>

#include "packages/family_query.h"
#include "packages/package_error.h"
#include "platform/console_user.h"
#include "platform/machine.h"
#include "platform/packages.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

// A registration takes seconds. The limit allows for a machine that is busy at logon.
constexpr std::chrono::minutes kRegistrationLimit{2};

constexpr wchar_t LowerAscii(wchar_t unit) {
  return unit >= L'A' && unit <= L'Z' ? static_cast<wchar_t>(unit - L'A' + L'a') : unit;
}

// Package names are ASCII, and Windows ignores their case.
bool SameName(std::wstring_view left, std::wstring_view right) {
  return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                    [](wchar_t a, wchar_t b) { return LowerAscii(a) == LowerAscii(b); });
}

bool Holds(const std::vector<std::wstring>& fullNames, const std::wstring& fullName) {
  return std::any_of(fullNames.begin(), fullNames.end(),
                     [&](const std::wstring& name) { return SameName(name, fullName); });
}

}  // namespace

std::wstring UwpPackage::FindPackageFullName(const std::wstring& familyName) const {
  return Platform::AsConsoleUser(&ReportRefusedStep, [&] { return FirstPackageOf(familyName); });
}

bool UwpPackage::ShouldForceRegistration(const std::wstring& user,
                                         const std::wstring& fullName) const {
  const Platform::Packages& packages = *Platform::CurrentMachine().packages;
  const std::wstring family = FamilyOf(fullName);
  try {
    if (!Holds(packages.FindForAllUsers(family), fullName)) return false;
    const auto sid = packages.AccountSid(user);
    if (!sid) throw PackageError(L"LookupAccountName", sid.Error());
    return !Holds(packages.FindForUser(*sid, family), fullName);
  } catch (const Platform::WindowsRuntimeError& error) {
    throw PackageError(error);
  }
}

void UwpPackage::Register(const std::wstring& fullName) const {
  try {
    // Starts the deployment, waits for it and reads its result as the user, because it applies only
    // to that user.
    const auto registration = Platform::AsConsoleUser(&ReportRefusedStep, [&] {
      return Platform::CurrentMachine().packages->Register(fullName, kRegistrationLimit);
    });
    if (registration.result < 0) {
      throw PackageError(L"RegisterPackageByFullNameAsync",
                         static_cast<std::uint32_t>(registration.result), registration.errorText);
    }
  } catch (const Platform::WindowsRuntimeError& error) {
    throw PackageError(error);
  }
}

}  // namespace Vx::Tessel::Server::Services::Orvane
