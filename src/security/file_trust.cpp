#include "security/file_trust.h"

#include <algorithm>
#include <cwchar>
#include <string_view>

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

std::vector<SignatureRecord> AllSignatures(const FileTrust& trust) {
  std::vector<SignatureRecord> all = trust.catalogSignatures;
  all.insert(all.end(), trust.embeddedSignatures.begin(), trust.embeddedSignatures.end());
  return all;
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
  constexpr std::wstring_view digits = L"0123456789abcdef";
  const auto code = static_cast<std::uint32_t>(result);
  std::wstring text = L"0x";
  for (int shift = 28; shift >= 0; shift -= 4) text += digits[(code >> shift) & 15];
  for (const auto& row : kMeanings) {
    if (row.code == code) text.append(L" (").append(row.meaning).append(L")");
  }
  return text;
}

TrustStep SignatureStep(const SignatureRecord& record, const wchar_t* kind, KeySet keys) {
  const bool pinned = VxAuthenticodeHelper::IsKeyPinned({record}, keys);
  const bool good = VxAuthenticodeHelper::IsTrustedByWindows({record});
  return {.passed = good && pinned,
          .text = std::wstring(kind) + L" signature of \"" + record.names.commonName +
                  L"\" issued by \"" + record.names.issuerCommonName + L"\": " +
                  ResultText(record.trust_result) +
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
  trust.catalogSignatures = helper.CollectSignatures(path, SignatureKind::Catalog);
  trust.embeddedSignatures = helper.CollectSignatures(path, SignatureKind::Embedded);
  const std::vector<SignatureRecord> records = AllSignatures(trust);
  if (records.empty() || keys.empty()) return trust;

  trust.trustedByWindows = VxAuthenticodeHelper::IsTrustedByWindows(records);
  trust.keyPinned = VxAuthenticodeHelper::IsKeyPinned(records, keys);
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
  trust.embeddedSignatures = helper.CollectSignatures(path, SignatureKind::Embedded);
  if (trust.embeddedSignatures.empty()) return trust;

  trust.trustedByWindows = VxAuthenticodeHelper::IsTrustedByWindows(trust.embeddedSignatures);
  if (!trust.trustedByWindows) {
    logger->LogError(kDropboxUntrusted);
    return trust;
  }
  const std::vector<SignatureRecord> table = DropboxSigners();
  const bool known = std::any_of(
      trust.embeddedSignatures.begin(), trust.embeddedSignatures.end(), [&](const auto& record) {
        return std::any_of(table.begin(), table.end(), [&](const SignatureRecord& row) {
          return record.names.commonName == row.names.commonName;
        });
      });
  if (known) CheckPlace(helper, path, trust);
  return trust;
}

Server::Records::Reason ReasonOf(const FileTrust& trust) {
  using Server::Records::Reason;
  if (trust.trusted) return Reason::None;
  if (AllSignatures(trust).empty()) return Reason::NoSignature;
  if (!trust.trustedByWindows) {
    return trust.pinsConfigured ? Reason::NotTrusted : Reason::NoPinnedKeys;
  }
  return trust.place ? Reason::Place : Reason::NotPinned;
}

std::vector<TrustStep> Explain(const FileTrust& trust, KeySet keys) {
  std::vector<TrustStep> steps;
  for (const auto& record : trust.catalogSignatures) {
    steps.push_back(SignatureStep(record, L"catalog", keys));
  }
  for (const auto& record : trust.embeddedSignatures) {
    steps.push_back(SignatureStep(record, L"embedded", keys));
  }
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
  if (trust.place) {
    steps.push_back({trust.place->outcome == PathOutcome::Allowed, PlaceText(*trust.place)});
  } else {
    steps.push_back({false, L"its place was not checked"});
  }
  steps.push_back({trust.trusted, trust.trusted ? L"trusted" : L"not trusted"});
  return steps;
}

std::vector<std::string> PublicKeysOf(const std::wstring& path) {
  const VxAuthenticodeHelper helper;
  std::vector<std::string> keys;
  for (const auto kind : {SignatureKind::Catalog, SignatureKind::Embedded}) {
    for (auto& record : helper.CollectSignatures(path, kind)) {
      if (std::find(keys.begin(), keys.end(), record.public_key) == keys.end()) {
        keys.push_back(std::move(record.public_key));
      }
    }
  }
  return keys;
}

}  // namespace Vx::Tessel::Security
