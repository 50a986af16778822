#include "security/file_trust.h"

#include <algorithm>
#include <cwchar>
#include <iterator>

#include "host/logging.h"

namespace Vx::Tessel::Security {

using Server::Logging::kComponentProvider;
using Server::Logging::LogManager;

namespace {

constexpr wchar_t kTrustOutcome[] =
    L"Security - IsFileTrusted - trusted by windows = %S, trusted by Zephra = %S";
constexpr wchar_t kDropboxStart[] = L"Starting validation of Dropbox file.";
constexpr wchar_t kDropboxUntrusted[] = L"Dropbox file is not trusted by windows.";

const char* YesNo(bool answer) noexcept {
  return answer ? "yes" : "no";
}

// Called only if the signatures pass, because this can take a second.
void CheckPlace(const VxAuthenticodeHelper& helper, const std::wstring& path, FileTrust& trust) {
  trust.place = helper.CheckPath(path);
  trust.trusted = trust.place->outcome == PathOutcome::Allowed;
}

std::wstring ResultText(std::int32_t result) {
  static constexpr struct {
    std::uint32_t code;
    const wchar_t* meaning;
  } kMeanings[] = {{0, L"verified"},
                   {0x800B0109, L"untrusted root: pinned or not, never enough"},
                   {0x800B0101, L"expired, otherwise good"}};
  const auto code = static_cast<std::uint32_t>(result);
  wchar_t hex[11];
  static_cast<void>(std::swprintf(hex, std::size(hex), L"0x%08x", code));
  for (const auto& row : kMeanings) {
    if (row.code == code) return std::wstring(hex) + L" (" + row.meaning + L")";
  }
  return hex;
}

TrustStep SignatureStep(const SignatureRecord& record, KeySet keys) {
  const std::wstring kind = record.kind == SignatureKind::Catalog ? L"catalog" : L"embedded";
  const bool pinned = VxAuthenticodeHelper::IsKeyPinned({record}, keys);
  const bool good = VxAuthenticodeHelper::IsTrustedByWindows({record});
  return {.passed = good && pinned,
          .text = kind + L" signature of \"" + record.names.commonName + L"\" issued by \"" +
                  record.names.issuerCommonName + L"\": " + ResultText(record.trust_result) +
                  (pinned ? L", key pinned" : L", key not pinned")};
}

std::wstring PlaceText(const PathVerdict& place) {
  switch (place.outcome) {
    case PathOutcome::Allowed:
      if (!place.appFolders.empty()) {
        return L"is in " + place.appFolders.back() +
               L", which belongs to TrustedInstaller and SYSTEM";
      }
      return L"is below " + place.prefix;
    case PathOutcome::NotExpanded:
      return L"its environment variables cannot be expanded";
    case PathOutcome::OutsidePrefixes:
      return place.fullPath + L" is outside the protected places";
    case PathOutcome::NotPlain:
      return place.fullPath + L" is not a plain path of drive, folders and name";
    case PathOutcome::NotFound:
      return L"Windows does not report where " + place.fullPath + L" is";
    case PathOutcome::LeadsElsewhere:
      return place.fullPath + L" leads to " + place.finalPath;
    case PathOutcome::OpenFolder:
      return place.appFolders.back() +
             L" does not belong to TrustedInstaller or SYSTEM, or does not give both full control";
  }
  return {};
}

}  // namespace

FileTrust VerifyFile(const std::wstring& path, KeySet keys) {
  FileTrust trust;
  trust.pinsConfigured = !keys.empty();
  if (path.empty()) return trust;
  const VxAuthenticodeHelper helper;
  trust.signatures = helper.CollectSignatures(path);
  if (trust.signatures.empty() || keys.empty()) return trust;

  trust.trustedByWindows = VxAuthenticodeHelper::IsTrustedByWindows(trust.signatures);
  trust.keyPinned = VxAuthenticodeHelper::IsKeyPinned(trust.signatures, keys);
  LogManager::SetProvider(kComponentProvider)
      ->LogInfo(kTrustOutcome, YesNo(trust.trustedByWindows), YesNo(trust.keyPinned));
  if (trust.trustedByWindows && trust.keyPinned) CheckPlace(helper, path, trust);
  return trust;
}

FileTrust VerifyDropboxFile(const std::wstring& path) {
  const auto* logger = LogManager::SetProvider(kComponentProvider);
  FileTrust trust;
  if (path.empty()) return trust;
  logger->LogInfo(kDropboxStart);
  const VxAuthenticodeHelper helper;
  trust.signatures = helper.CollectSignatures(path, SignatureKind::Embedded);
  if (trust.signatures.empty()) return trust;

  trust.trustedByWindows = VxAuthenticodeHelper::IsTrustedByWindows(trust.signatures);
  if (!trust.trustedByWindows) {
    logger->LogError(kDropboxUntrusted);
    return trust;
  }
  const std::vector<SignatureRecord> table = DropboxSigners();
  const bool known = std::ranges::any_of(trust.signatures, [&](const SignatureRecord& record) {
    return std::ranges::any_of(table, [&](const SignatureRecord& row) {
      return record.names.commonName == row.names.commonName;
    });
  });
  if (known) CheckPlace(helper, path, trust);
  return trust;
}

Server::Records::Reason ReasonOf(const FileTrust& trust) {
  using Server::Records::Reason;
  if (trust.trusted) return Reason::None;
  if (trust.signatures.empty()) return Reason::NoSignature;
  if (!trust.trustedByWindows) {
    return trust.pinsConfigured ? Reason::NotTrusted : Reason::NoPinnedKeys;
  }
  return trust.place ? Reason::Place : Reason::NotPinned;
}

std::vector<TrustStep> Explain(const FileTrust& trust, KeySet keys) {
  std::vector<TrustStep> steps;
  for (const auto& record : trust.signatures) steps.push_back(SignatureStep(record, keys));
  if (steps.empty()) steps.push_back({false, L"no signature that Windows can verify"});
  if (!trust.pinsConfigured) {
    steps.push_back({false, L"no keys are pinned in this build, so nothing is trusted"});
    return steps;
  }
  const auto signature = [&](bool passed, const wchar_t* what) {
    steps.push_back({passed, (passed ? L"one signature " : L"no signature ") + std::wstring(what)});
  };
  signature(trust.trustedByWindows, L"is accepted by Windows");
  signature(trust.keyPinned, L"was made with a pinned key");
  const bool allowed = trust.place && trust.place->outcome == PathOutcome::Allowed;
  steps.push_back({allowed, trust.place ? PlaceText(*trust.place) : L"its place was not checked"});
  steps.push_back({trust.trusted, trust.trusted ? L"trusted" : L"not trusted"});
  return steps;
}

std::vector<std::string> PublicKeysOf(const std::wstring& path) {
  std::vector<std::string> keys;
  for (auto& record : VxAuthenticodeHelper().CollectSignatures(path)) {
    if (std::ranges::find(keys, record.public_key) != keys.end()) continue;
    keys.push_back(std::move(record.public_key));
  }
  return keys;
}

}  // namespace Vx::Tessel::Security
