#include "packages/uwp_package.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <iterator>
#include <vector>

#include "host/logging.h"
#include "json/utf8.h"
#include "platform/console_user.h"
#include "platform/machine.h"
#include "platform/packages.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kRevertFailed[] =
    L"Problem while reverting the impersonation of a package operation.";

constexpr wchar_t kFindByFamily[] = L"FindPackagesByPackageFamily";
constexpr std::uint32_t kSuccess = 0;
constexpr std::uint32_t kInsufficientBuffer = 122;  // ERROR_INSUFFICIENT_BUFFER
constexpr std::uint32_t kNotFound = 1168;           // ERROR_NOT_FOUND

constexpr std::ptrdiff_t kFullNameSeparators = 4;

// A registration takes seconds. The limit allows for a machine that is busy at logon.
constexpr std::chrono::minutes kRegistrationLimit{2};

std::string Describe(std::wstring_view call, std::uint32_t code, std::wstring_view details) {
  char digits[8];
  char* const end = std::to_chars(std::begin(digits), std::end(digits), code, 16).ptr;
  std::string text = Json::ToUtf8(call) + " failed with 0x" + std::string(std::begin(digits), end);
  if (!details.empty()) text += ": " + Json::ToUtf8(details);
  return text;
}

// Logs a warning if the thread could not revert. Throws PackageError for any other step.
void ReportRefusedStep(Platform::ActingStep step, Platform::ErrorCode error) {
  if (step == Platform::ActingStep::Revert) {
    Logging::LogManager::SetProvider(Logging::kComponentProvider)->LogWarning(kRevertFailed);
    return;
  }
  const bool acting = step == Platform::ActingStep::Impersonation;
  throw PackageError(acting ? L"ImpersonateLoggedOnUser" : L"WTSQueryUserToken", error);
}

// Returns the family name in a full name ("Name_Version_Architecture_ResourceId_PublisherId").
// Throws std::invalid_argument for any other format.
std::wstring FamilyOf(const std::wstring& fullName) {
  if (std::count(fullName.begin(), fullName.end(), L'_') != kFullNameSeparators) {
    throw std::invalid_argument("not a package full name");
  }
  return fullName.substr(0, fullName.find(L'_')) + fullName.substr(fullName.rfind(L'_'));
}

constexpr wchar_t LowerAscii(wchar_t unit) {
  return unit >= L'A' && unit <= L'Z' ? static_cast<wchar_t>(unit - L'A' + L'a') : unit;
}

// Package names are ASCII, and Windows ignores their case.
bool Holds(const std::vector<std::wstring>& fullNames, const std::wstring& fullName) {
  return std::ranges::any_of(fullNames, [&](const std::wstring& name) {
    return std::ranges::equal(name, fullName, {}, LowerAscii, LowerAscii);
  });
}

}  // namespace

PackageError::PackageError(std::wstring_view call, std::uint32_t code, std::wstring_view details)
    : std::runtime_error(Describe(call, code, details)), errorCode(code) {}

PackageError::PackageError(const Platform::WindowsRuntimeError& error)
    : PackageError(error.message(), static_cast<std::uint32_t>(error.code())) {}

std::wstring FirstPackageOf(const std::wstring& familyName) {
  const auto found = Platform::CurrentMachine().packages->FindByFamily(familyName);
  // The size query fails with "too small" if there are packages and succeeds if there are none.
  if (found.sizeError != kSuccess && found.sizeError != kInsufficientBuffer) {
    throw PackageError(kFindByFamily, found.sizeError);
  }
  if (found.error != kSuccess) throw PackageError(kFindByFamily, found.error);
  return found.fullNames.empty() ? std::wstring() : found.fullNames.front();
}

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

std::pair<std::int32_t, std::uint64_t> UwpPackageDataAccess::GetOriginAndVersion(
    const std::wstring& familyName) const {
  using Answer = std::pair<std::int32_t, std::uint64_t>;
  return Platform::AsConsoleUser(&ReportRefusedStep, [&]() -> Answer {
    const std::wstring fullName = FirstPackageOf(familyName);
    if (fullName.empty()) throw PackageError(kFindByFamily, kNotFound);
    const Platform::Packages& packages = *Platform::CurrentMachine().packages;
    const auto origin = packages.StagedOrigin(fullName);
    if (!origin) throw PackageError(L"GetStagedPackageOrigin", origin.Error());
    const auto version = packages.Version(fullName);
    if (!version) throw PackageError(L"PackageIdFromFullName", version.Error());
    return {*origin, *version};
  });
}

}  // namespace Vx::Tessel::Server::Services::Orvane
