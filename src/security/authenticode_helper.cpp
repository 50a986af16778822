#include "security/authenticode_helper.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <optional>

#include "platform/clock.h"
#include "platform/environment.h"
#include "platform/files.h"
#include "platform/machine.h"
#include "platform/trust_provider.h"
#include "security/path_rules.h"

namespace Vx::Tessel::Security {

using Platform::CurrentMachine;
using Server::Logging::kComponentProvider;
using Server::Logging::LogManager;
using Server::Logging::TraceLogger;

namespace {

constexpr char kIsPathAllowed[] = "Vx::Tessel::Security::VxAuthenticodeHelper::IsPathAllowed";
constexpr char kAquireFileReadOnlyLock[] =
    "Vx::Tessel::Security::VxAuthenticodeHelper::AquireFileReadOnlyLock";

constexpr wchar_t kCatalogFile[] = L"Security - GetSecurityCatalogInfo - File = %s";
// In the order of CatalogStep.
constexpr const wchar_t* kCatalogFailed[] = {
    L"Security - GetSecurityCatalogInfo - Failed during CryptCATAdminAcquireContext2. "
    L"Error Code = %d",
    L"Security - GetSecurityCatalogInfo - Failed during CreateFileW. Error Code = %d",
    L"Security - GetSecurityCatalogInfo - Failed during CryptCATAdminCalcHashFromFileHandle2. "
    L"Error Code = %d",
    L"Security - GetSecurityCatalogInfo - Failed during CryptCATAdminEnumCatalogFromHash. "
    L"Error Code = %d"};
constexpr wchar_t kSubject[] = L"Subject = %s";
constexpr wchar_t kSubjectFailed[] = L"Error while retrieving Subject field.";
constexpr wchar_t kPrefixMissed[] = L"%S - BeginsWith() failed [%s] [%s]";
constexpr wchar_t kSubstringMissed[] = L"%S - Didn't find substring [%s] in [%s]";
constexpr wchar_t kExpandFailed[] = L"%S - cannot expand [%s], error %d";
constexpr wchar_t kNotPlain[] = L"%S - not a plain path [%s]";
constexpr wchar_t kFinalPathFailed[] = L"%S - cannot tell where [%s] lies, error %d";
constexpr wchar_t kLeadsElsewhere[] = L"%S - [%s] leads to [%s]";
constexpr wchar_t kAccessFailed[] =
    L"Security - GetNamedSecurityInfo - Failed %d of %d times. Error Code = %d";
constexpr wchar_t kAccessException[] =
    L"Exception in CheckForFullConrolByTrustedInstallAndSystem().";
constexpr wchar_t kLockOutcome[] = L"%S(%s) : %s";

// HRESULTs that WinVerifyTrust returns as signed numbers.
constexpr std::int32_t kVerified = 0;
constexpr auto kUntrustedRoot = static_cast<std::int32_t>(0x800B0109);
constexpr auto kExpired = static_cast<std::int32_t>(0x800B0101);

constexpr const wchar_t* kAllowedPrefixes[] = {L"%windir%\\", L"%PROGRAMFILES(x86)%\\",
                                               L"%PROGRAMFILES%\\"};
constexpr wchar_t kWindowsApps[] = L":\\WindowsApps\\";

// The SIDs of SYSTEM and TrustedInstaller.
constexpr wchar_t kSystem[] = L"S-1-5-18";
constexpr wchar_t kTrustedInstaller[] =
    L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464";

constexpr std::uint32_t kGenericAll = 1U << 28;
constexpr int kAccessAttempts = 5;
constexpr std::chrono::milliseconds kAccessPause{250};

// The count comes from the file being checked. Real files have a handful.
constexpr std::uint32_t kMaxSecondarySignatures = 255;

constexpr bool IsCollected(std::int32_t result) noexcept {
  return result == kVerified || result == kUntrustedRoot || result == kExpired;
}

// Appends the record of a collected signature.
void Append(const Platform::SignatureVerdict& verdict, SignatureKind kind,
            const TraceLogger& logger, std::vector<SignatureRecord>& records) {
  if (!verdict.signer) {
    logger.LogError(kSubjectFailed);
    return;
  }
  const Platform::Signer& signer = *verdict.signer;
  if (!signer.subject.empty()) logger.LogInfo(kSubject, signer.subject.c_str());
  if (signer.subject.empty() || !signer.names) logger.LogError(kSubjectFailed);
  records.push_back({.kind = kind,
                     .public_key = FormatPublicKey(signer.publicKey),
                     .trust_result = verdict.result,
                     .names = signer.names.value_or(Platform::SignerNames{})});
}

Platform::Result<std::wstring> Expanded(const std::wstring& text) {
  return CurrentMachine().environment->Expand(text, Platform::kLongestPath);
}

// Returns the full form of a path that starts at a drive's root. Returns any other path unchanged:
// it matches no prefix, and its full form would depend on the service's own folder.
std::wstring FullText(const std::wstring& expanded) {
  if (!IsDrivePath(expanded)) return expanded;
  return CurrentMachine().files->FullPath(expanded).ValueOr(expanded);
}

struct Place {
  std::wstring prefix;
  std::optional<std::wstring> appFolder;
};

// Logs each rule that the path misses, unless `misses` is null.
//
// The WindowsApps folder in %PROGRAMFILES% is below a prefix, but its access list is still checked,
// because Windows installs packages there for standard users without an administrator's approval.
std::optional<Place> FindPlace(const std::wstring& fullPath, const TraceLogger* misses) {
  for (const wchar_t* allowed : kAllowedPrefixes) {
    const std::wstring prefix = Expanded(allowed).ValueOr({});
    if (!prefix.empty() && BeginsWith(fullPath, prefix)) {
      return Place{.prefix = prefix, .appFolder = WindowsAppsFolderBelow(prefix, fullPath)};
    }
    if (misses != nullptr) {
      misses->LogError(kPrefixMissed, kIsPathAllowed, fullPath.c_str(), prefix.c_str());
    }
  }
  auto folder = DriveWindowsAppsFolder(fullPath);
  if (folder) return Place{.prefix = {}, .appFolder = std::move(folder)};
  if (misses != nullptr) {
    misses->LogError(kSubstringMissed, kIsPathAllowed, kWindowsApps, fullPath.c_str());
  }
  return std::nullopt;
}

// Returns the place that the full form names, or nothing if either text names no place.
std::optional<Place> FindWrittenPlace(const std::wstring& written, const std::wstring& full,
                                      const TraceLogger* misses) {
  if (FindPlace(written, nullptr)) return FindPlace(full, misses);
  if (misses != nullptr) FindPlace(written, misses);
  return std::nullopt;
}

// Returns whether every check passed. Sets the outcome for a failure of the last one made, and the
// final path once it is known.
bool ResolveFinalPath(const std::wstring& path, const std::wstring& expanded,
                      const TraceLogger& logger, PathVerdict& verdict) {
  verdict.outcome = PathOutcome::NotPlain;
  if (!IsPlainPath(verdict.fullPath)) {
    logger.LogError(kNotPlain, kIsPathAllowed, verdict.fullPath.c_str());
    return false;
  }
  verdict.outcome = PathOutcome::NotFound;
  const Platform::Files& files = *CurrentMachine().files;
  const auto target = files.FinalPath(verdict.fullPath);
  if (!target) {
    logger.LogError(kFinalPathFailed, kIsPathAllowed, verdict.fullPath.c_str(),
                    static_cast<int>(target.Error()));
    return false;
  }
  verdict.outcome = PathOutcome::LeadsElsewhere;
  verdict.finalPath = *target;
  if (path == expanded) return true;
  // The caller starts the file by its unexpanded path, and a folder may actually be called "%x%".
  // The file that is started would then not be the one that was checked.
  const auto unexpanded = files.FinalPath(path);
  if (!unexpanded || SameIgnoringCase(*unexpanded, *target)) return true;
  logger.LogError(kLeadsElsewhere, kIsPathAllowed, path.c_str(), unexpanded->c_str());
  return false;
}

Platform::Result<bool> HasFullControl(const std::wstring& folder, const TraceLogger& logger) {
  try {
    const auto access = CurrentMachine().files->FolderAccess(folder);
    if (!access) return Platform::Failure(access.Error());
    bool trustedInstaller = false;
    bool system = false;
    for (const Platform::AccessEntry& entry : access->entries) {
      if (!entry.allowed || (entry.mask & kGenericAll) == 0) continue;
      if (entry.sid == kTrustedInstaller) trustedInstaller = true;
      if (entry.sid == kSystem) system = true;
    }
    const bool owned = access->owner == kTrustedInstaller || access->owner == kSystem;
    return owned && trustedInstaller && system;
  } catch (...) {
    logger.LogError(kAccessException);
    return false;
  }
}

bool HasFullControlWithRetries(const std::wstring& folder, const TraceLogger& logger) {
  for (int attempt = 1; attempt <= kAccessAttempts; ++attempt) {
    const auto full = HasFullControl(folder, logger);
    if (full && *full) return true;
    const int error = full ? 0 : static_cast<int>(full.Error());
    logger.LogError(kAccessFailed, attempt, kAccessAttempts, error);
    if (attempt < kAccessAttempts) CurrentMachine().clock->Sleep(kAccessPause);
  }
  return false;
}

}  // namespace

VxAuthenticodeHelper::VxAuthenticodeHelper()
    : logger(LogManager::SetProvider(kComponentProvider)) {}

std::vector<SignatureRecord> VxAuthenticodeHelper::CollectSignatures(const std::wstring& path,
                                                                     SignatureKind kind) const {
  const Platform::TrustProvider& provider = *CurrentMachine().trustProvider;
  std::optional<Platform::CatalogHit> catalog;
  if (kind == SignatureKind::Catalog) {
    logger->LogInfo(kCatalogFile, path.c_str());
    Platform::CatalogFailure failure;
    catalog = provider.FindCatalog(path, failure);
    if (!catalog) {
      logger->LogError(kCatalogFailed[static_cast<std::size_t>(failure.step)],
                       static_cast<int>(failure.error));
      return {};
    }
  }
  std::vector<SignatureRecord> records;
  std::uint32_t last = 0;
  for (std::uint32_t index = 0; index <= last; ++index) {
    const Platform::SignatureVerdict verdict =
        catalog ? provider.VerifyInCatalog(*catalog, index) : provider.VerifyEmbedded(path, index);
    if (index == 0) last = std::min(verdict.secondaryCount, kMaxSecondarySignatures);
    if (IsCollected(verdict.result)) Append(verdict, kind, *logger, records);
  }
  return records;
}

std::vector<SignatureRecord> VxAuthenticodeHelper::CollectSignatures(
    const std::wstring& path) const {
  std::vector<SignatureRecord> records = CollectSignatures(path, SignatureKind::Catalog);
  std::ranges::move(CollectSignatures(path, SignatureKind::Embedded), std::back_inserter(records));
  return records;
}

bool VxAuthenticodeHelper::IsTrustedByWindows(
    const std::vector<SignatureRecord>& records) noexcept {
  return std::ranges::any_of(records, [](const SignatureRecord& record) {
    return record.trust_result == kVerified || record.trust_result == kExpired;
  });
}

bool VxAuthenticodeHelper::IsKeyPinned(const std::vector<SignatureRecord>& records,
                                       KeySet keys) noexcept {
  return std::ranges::any_of(records, [keys](const SignatureRecord& record) {
    return std::ranges::find(keys, record.public_key) != keys.end();
  });
}

bool VxAuthenticodeHelper::IsPathAllowed(const std::wstring& path) const {
  return CheckPath(path).outcome == PathOutcome::Allowed;
}

// A client chooses the path, and one that begins with "C:\Windows\" may name a file elsewhere: with
// ".." in the middle, through a mount point in a folder that every user may write to, or as a
// stream of another file. So the rule is applied to the path as written, to its full form and to
// the file's actual location. A path that Windows cannot resolve is refused.
PathVerdict VxAuthenticodeHelper::CheckPath(const std::wstring& path) const {
  PathVerdict verdict;
  const auto expanded = Expanded(path);
  if (!expanded) {
    logger->LogError(kExpandFailed, kIsPathAllowed, path.c_str(),
                     static_cast<int>(expanded.Error()));
    return verdict;
  }
  verdict.outcome = PathOutcome::OutsidePrefixes;
  verdict.fullPath = FullText(*expanded);
  const auto place = FindWrittenPlace(*expanded, verdict.fullPath, logger);
  if (!place) return verdict;
  verdict.prefix = place->prefix;
  if (!ResolveFinalPath(path, *expanded, *logger, verdict)) return verdict;

  const auto finalPlace = FindPlace(verdict.finalPath, nullptr);
  if (!finalPlace) {
    logger->LogError(kLeadsElsewhere, kIsPathAllowed, verdict.fullPath.c_str(),
                     verdict.finalPath.c_str());
    return verdict;
  }
  // When Windows moves a package to another drive, it leaves a link. Both folders are then checked.
  if (place->appFolder) verdict.appFolders.push_back(*place->appFolder);
  if (finalPlace->appFolder &&
      !(place->appFolder && SameIgnoringCase(*finalPlace->appFolder, *place->appFolder))) {
    verdict.appFolders.push_back(*finalPlace->appFolder);
  }
  const bool closed = std::ranges::all_of(verdict.appFolders, [this](const auto& folder) {
    return HasFullControlWithRetries(folder, *logger);
  });
  verdict.outcome = closed ? PathOutcome::Allowed : PathOutcome::OpenFolder;
  return verdict;
}

bool VxAuthenticodeHelper::MayBeAllowed(const std::wstring& path) const {
  const std::wstring full = FullText(path);
  const bool plain = IsPlainPath(full);
  if (plain && FindWrittenPlace(path, full, nullptr)) return true;
  if (FindWrittenPlace(path, full, logger)) {
    logger->LogError(kNotPlain, kIsPathAllowed, full.c_str());
  }
  return false;
}

bool VxAuthenticodeHelper::CheckForFullConrolByTrustedInstallAndSystem(
    const std::wstring& folder) const {
  return HasFullControl(folder, *logger).ValueOr(false);
}

Platform::UniqueHandle VxAuthenticodeHelper::AquireFileReadOnlyLock(
    const std::wstring& path) const {
  auto lock = CurrentMachine().files->OpenReadLocked(path).ValueOr(nullptr);
  logger->LogInfo(kLockOutcome, kAquireFileReadOnlyLock, path.c_str(),
                  lock ? L"succeeded" : L"FAILED");
  return lock;
}

}  // namespace Vx::Tessel::Security
