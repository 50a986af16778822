#include "platform/trust_provider.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <span>
#include <utility>

#include <windows.h>
// The catalog header needs the types of this one.
#include <wincrypt.h>

#include <aclapi.h>
#include <mscat.h>
#include <softpub.h>
#include <wintrust.h>

#include "platform/unique_handle.h"
#include "platform/windows/capabilities.h"
#include "platform/windows/system_library.h"

namespace Vx::Platform {

namespace {

// WINTRUST_SIGNATURE_SETTINGS and the WINTRUST_DATA that points to it are newer than the headers of
// this toolchain.
struct SignatureSettings {
  DWORD size;
  DWORD index;
  DWORD flags;
  DWORD secondarySignatures;  // out
  DWORD verifiedIndex;        // out
  CERT_STRONG_SIGN_PARA* cryptoPolicy;
};
static_assert(sizeof(SignatureSettings) == 32);
static_assert(offsetof(SignatureSettings, cryptoPolicy) == 24);

constexpr DWORD kVerifySpecific = 0x1;     // WSS_VERIFY_SPECIFIC
constexpr DWORD kGetSecondaryCount = 0x2;  // WSS_GET_SECONDARY_SIG_COUNT

struct TrustData {
  DWORD size;
  void* policyCallbackData;
  void* sipClientData;
  DWORD uiChoice;
  DWORD revocationChecks;
  DWORD unionChoice;
  const void* subject;
  DWORD stateAction;
  HANDLE stateData;
  wchar_t* urlReference;
  DWORD provFlags;
  DWORD uiContext;
  SignatureSettings* signatureSettings;
};
static_assert(sizeof(TrustData) == 88);
static_assert(offsetof(TrustData, subject) == 40);
static_assert(offsetof(TrustData, stateData) == 56);
static_assert(offsetof(TrustData, signatureSettings) == 80);

constexpr wchar_t kCatalogHash[] = L"SHA256";
constexpr wchar_t kExtendedPrefix[] = L"\\\\?\\";
constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

LONG VerifyTrust(TrustData& data) {
  GUID action = WINTRUST_ACTION_GENERIC_VERIFY_V2;
  // With this window, unlike with a null one, no policy provider may ask anybody anything.
  return WinVerifyTrust(static_cast<HWND>(INVALID_HANDLE_VALUE), &action, &data);
}

// One verification. What it opened is closed by the second call on every path, a failed
// verification included, because that leaves state behind too.
class Verification {
 public:
  Verification(DWORD unionChoice, const void* subject, DWORD index)
      : settings{.size = sizeof settings,
                 .index = index,
                 .flags = kVerifySpecific | kGetSecondaryCount,
                 .secondarySignatures = 0,
                 .verifiedIndex = 0,
                 .cryptoPolicy = nullptr},
        data{.size = sizeof data,
             .policyCallbackData = nullptr,
             .sipClientData = nullptr,
             .uiChoice = WTD_UI_NONE,
             .revocationChecks = WTD_REVOKE_NONE,
             .unionChoice = unionChoice,
             .subject = subject,
             .stateAction = WTD_STATEACTION_VERIFY,
             .stateData = nullptr,
             .urlReference = nullptr,
             .provFlags = WTD_REVOCATION_CHECK_NONE,
             .uiContext = WTD_UICONTEXT_EXECUTE,
             .signatureSettings = &settings},
        result(VerifyTrust(data)) {}
  Verification(const Verification&) = delete;
  Verification& operator=(const Verification&) = delete;
  ~Verification() {
    data.stateAction = WTD_STATEACTION_CLOSE;
    VerifyTrust(data);
  }

  LONG TrustResult() const { return result; }
  DWORD SecondaryCount() const { return settings.secondarySignatures; }

  // The certificate of the signer, owned by this verification; null when the state names none.
  const CERT_CONTEXT* SignerCertificate() const {
    if (data.stateData == nullptr) return nullptr;
    CRYPT_PROVIDER_DATA* provider = WTHelperProvDataFromStateData(data.stateData);
    if (provider == nullptr) return nullptr;
    CRYPT_PROVIDER_SGNR* signer = WTHelperGetProvSignerFromChain(provider, 0, FALSE, 0);
    if (signer == nullptr) return nullptr;
    const CRYPT_PROVIDER_CERT* certificate = WTHelperGetProvCertFromChain(signer, 0);
    return certificate == nullptr ? nullptr : certificate->pCert;
  }

 private:
  SignatureSettings settings;
  TrustData data;
  LONG result;
};

// The length that Windows reports counts, not a terminator: a NUL inside a name must not make it
// equal to a shorter one.
std::wstring Attribute(const CERT_CONTEXT* certificate, DWORD flags, const char* attribute) {
  std::string type(attribute);
  const DWORD length =
      CertGetNameStringW(certificate, CERT_NAME_ATTR_TYPE, flags, type.data(), nullptr, 0);
  if (length <= 1) return {};
  std::wstring text(length, L'\0');
  const DWORD written =
      CertGetNameStringW(certificate, CERT_NAME_ATTR_TYPE, flags, type.data(), text.data(), length);
  text.resize(written == 0 ? 0 : written - 1);
  return text;
}

std::wstring NameText(CERT_NAME_BLOB name) {
  const DWORD length = CertNameToStrW(kEncoding, &name, CERT_X500_NAME_STR, nullptr, 0);
  if (length <= 1) return {};
  std::wstring text(length, L'\0');
  const DWORD written = CertNameToStrW(kEncoding, &name, CERT_X500_NAME_STR, text.data(), length);
  text.resize(written == 0 ? 0 : written - 1);
  return text;
}

// Whether the encoded name can be taken apart at all. The calls that read one attribute give the
// same empty text for "not there" and "not readable".
bool IsReadable(const CERT_NAME_BLOB& name) {
  DWORD size = 0;
  return CryptDecodeObject(kEncoding, X509_NAME, name.pbData, name.cbData, 0, nullptr, &size) !=
         FALSE;
}

std::optional<SignerNames> NamesOf(const CERT_CONTEXT* certificate) {
  const CERT_INFO& info = *certificate->pCertInfo;
  if (!IsReadable(info.Subject) || !IsReadable(info.Issuer)) return std::nullopt;
  const auto subject = [certificate](const char* attribute) {
    return Attribute(certificate, 0, attribute);
  };
  return SignerNames{
      .commonName = subject(szOID_COMMON_NAME),
      .organisationalUnit = subject(szOID_ORGANIZATIONAL_UNIT_NAME),
      .locality = subject(szOID_LOCALITY_NAME),
      .organisation = subject(szOID_ORGANIZATION_NAME),
      .state = subject(szOID_STATE_OR_PROVINCE_NAME),
      .country = subject(szOID_COUNTRY_NAME),
      .issuerCommonName = Attribute(certificate, CERT_NAME_ISSUER_FLAG, szOID_COMMON_NAME)};
}

SignatureVerdict VerdictOf(const Verification& verification) {
  SignatureVerdict verdict{.result = verification.TrustResult(),
                           .secondaryCount = verification.SecondaryCount(),
                           .signer = std::nullopt};
  const CERT_CONTEXT* certificate = verification.SignerCertificate();
  if (certificate == nullptr) return verdict;
  const CRYPT_BIT_BLOB& key = certificate->pCertInfo->SubjectPublicKeyInfo.PublicKey;
  const auto bytes = std::as_bytes(std::span(key.pbData, key.cbData));
  verdict.signer = Signer{.publicKey = {bytes.begin(), bytes.end()},
                          .subject = NameText(certificate->pCertInfo->Subject),
                          .names = NamesOf(certificate)};
  return verdict;
}

struct CatalogAdminCloser {
  void operator()(void* admin) const noexcept { CryptCATAdminReleaseContext(admin, 0); }
};
using CatalogAdminHandle = std::unique_ptr<void, CatalogAdminCloser>;

// The calls that know SHA-256, which no import library of this toolchain has.
using AcquireContext2 = BOOL WINAPI(HCATADMIN*, const GUID*, PCWSTR, const CERT_STRONG_SIGN_PARA*,
                                    DWORD);
using CalcHash2 = BOOL WINAPI(HCATADMIN, HANDLE, DWORD*, BYTE*, DWORD);
constexpr wchar_t kWintrust[] = L"wintrust.dll";  // an import of this module

struct CatalogAdmin {
  CatalogAdminHandle handle;
  bool sha256 = false;  // else the hash of the older calls, SHA-1
};

// A context for the catalogs of Windows and of drivers. The older call steps in where the newer one
// is not there (Wine has it and answers that it is not implemented).
Result<CatalogAdmin> OpenCatalogs() {
  const GUID subsystem = DRIVER_ACTION_VERIFY;
  HCATADMIN admin = nullptr;
  if (auto* acquire = SystemFunction<AcquireContext2>(kWintrust, "CryptCATAdminAcquireContext2")) {
    if (acquire(&admin, &subsystem, kCatalogHash, nullptr, 0) != FALSE) {
      return CatalogAdmin{.handle = CatalogAdminHandle(admin), .sha256 = true};
    }
    const DWORD error = GetLastError();
    if (error != ERROR_CALL_NOT_IMPLEMENTED) return Result<CatalogAdmin>::Failure(error);
  }
  if (CryptCATAdminAcquireContext(&admin, &subsystem, 0) == FALSE) {
    return Result<CatalogAdmin>::Failure(GetLastError());
  }
  return CatalogAdmin{.handle = CatalogAdminHandle(admin), .sha256 = false};
}

Result<std::vector<std::byte>> HashOf(const CatalogAdmin& admin, HANDLE file) {
  using Bytes = Result<std::vector<std::byte>>;
  auto* calc2 = SystemFunction<CalcHash2>(kWintrust, "CryptCATAdminCalcHashFromFileHandle2");
  // A context for SHA-256 finds nothing by the older hash.
  if (admin.sha256 && calc2 == nullptr) return Bytes::Failure(ERROR_CALL_NOT_IMPLEMENTED);
  const auto calculate = [&](DWORD& size, BYTE* bytes) {
    return admin.sha256 ? calc2(admin.handle.get(), file, &size, bytes, 0)
                        : CryptCATAdminCalcHashFromFileHandle(file, &size, bytes, 0);
  };
  DWORD size = 0;
  if (calculate(size, nullptr) == FALSE) {
    const DWORD error = GetLastError();
    if (error != ERROR_INSUFFICIENT_BUFFER) return Bytes::Failure(error);
  }
  if (size == 0) return Bytes::Failure(ERROR_INVALID_DATA);
  std::vector<std::byte> hash(size);
  if (calculate(size, reinterpret_cast<BYTE*>(hash.data())) == FALSE) {
    return Bytes::Failure(GetLastError());
  }
  hash.resize(std::min<std::size_t>(hash.size(), size));
  return hash;
}

std::wstring MemberTag(std::span<const std::byte> hash) {
  constexpr std::wstring_view digits = L"0123456789ABCDEF";
  std::wstring tag;
  tag.reserve(hash.size() * 2);
  for (const std::byte byte : hash) {
    tag += digits[std::to_integer<std::size_t>(byte) >> 4];
    tag += digits[std::to_integer<std::size_t>(byte) & 15];
  }
  return tag;
}

Result<std::wstring> CatalogOf(const CatalogAdmin& admin, std::vector<std::byte>& hash) {
  using Text = Result<std::wstring>;
  HCATINFO found =
      CryptCATAdminEnumCatalogFromHash(admin.handle.get(), reinterpret_cast<BYTE*>(hash.data()),
                                       static_cast<DWORD>(hash.size()), 0, nullptr);
  if (found == nullptr) return Text::Failure(GetLastError());
  CATALOG_INFO info{};
  info.cbStruct = sizeof info;
  const BOOL named = CryptCATCatalogInfoFromContext(found, &info, 0);
  const DWORD error = GetLastError();
  CryptCATAdminReleaseCatalogContext(admin.handle.get(), found, 0);
  if (named == FALSE) return Text::Failure(error);
  info.wszCatalogFile[std::size(info.wszCatalogFile) - 1] = L'\0';
  return std::wstring(info.wszCatalogFile);
}

struct LocalFreer {
  void operator()(void* block) const noexcept { LocalFree(block); }
};

void LookUpAccount(PSID sid, AccessEntry& entry) {
  DWORD nameLength = 0;
  DWORD domainLength = 0;
  SID_NAME_USE use{};
  LookupAccountSidW(nullptr, sid, nullptr, &nameLength, nullptr, &domainLength, &use);
  if (nameLength == 0) return;
  std::wstring name(nameLength, L'\0');
  std::wstring domain(std::max<DWORD>(domainLength, 1), L'\0');
  if (LookupAccountSidW(nullptr, sid, name.data(), &nameLength, domain.data(), &domainLength,
                        &use) == FALSE) {
    return;
  }
  // On success both lengths leave out the terminator.
  name.resize(nameLength);
  domain.resize(domainLength);
  entry.accountName = std::move(name);
  entry.accountDomain = std::move(domain);
}

// `call(buffer, size)` answers the length without the terminator, or the size it needs, or zero.
template <typename Call>
Result<std::wstring> SizedText(Call call) {
  std::wstring text(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = call(text.data(), static_cast<DWORD>(text.size()));
    if (length == 0) return Result<std::wstring>::Failure(GetLastError());
    if (length < text.size()) {
      text.resize(length);
      return text;
    }
    text.resize(static_cast<std::size_t>(length) + 1);
  }
}

UniqueHandle OpenShared(const std::wstring& path, DWORD access) {
  return AdoptFile(CreateFileW(path.c_str(), access,
                               FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                               OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
}

class WindowsTrust final : public TrustProvider {
 public:
  SignatureVerdict VerifyEmbedded(const std::wstring& path, std::uint32_t index) const override {
    WINTRUST_FILE_INFO file{};
    file.cbStruct = sizeof file;
    file.pcwszFilePath = path.c_str();
    const Verification verification(WTD_CHOICE_FILE, &file, index);
    return VerdictOf(verification);
  }

  std::optional<CatalogHit> FindCatalog(const std::wstring& path,
                                        CatalogFailure& failure) const override {
    const auto failed = [&failure](CatalogStep step, DWORD error) {
      failure = {.step = step, .error = error};
      return std::nullopt;
    };
    const auto admin = OpenCatalogs();
    if (!admin) return failed(CatalogStep::AcquireContext, admin.Error());
    const UniqueHandle file = OpenShared(path, GENERIC_READ);
    if (!file) return failed(CatalogStep::OpenFile, GetLastError());
    auto hash = HashOf(*admin, file.get());
    if (!hash) return failed(CatalogStep::Hash, hash.Error());
    auto catalog = CatalogOf(*admin, *hash);
    if (!catalog) return failed(CatalogStep::FindCatalog, catalog.Error());
    return CatalogHit{.catalogPath = *std::move(catalog),
                      .memberTag = MemberTag(*hash),
                      .memberPath = path,
                      .hash = *std::move(hash)};
  }

  SignatureVerdict VerifyInCatalog(const CatalogHit& catalog, std::uint32_t index) const override {
    // The verification needs the context to know which hash the catalog is searched by.
    const auto admin = OpenCatalogs();
    std::vector<std::byte> hash = catalog.hash;
    WINTRUST_CATALOG_INFO info{};
    info.cbStruct = sizeof info;
    info.pcwszCatalogFilePath = catalog.catalogPath.c_str();
    info.pcwszMemberTag = catalog.memberTag.c_str();
    info.pcwszMemberFilePath = catalog.memberPath.c_str();
    info.pbCalculatedFileHash = reinterpret_cast<BYTE*>(hash.data());
    info.cbCalculatedFileHash = static_cast<DWORD>(hash.size());
    info.hCatAdmin = admin ? admin->handle.get() : nullptr;
    const Verification verification(WTD_CHOICE_CATALOG, &info, index);
    return VerdictOf(verification);
  }

  Result<std::wstring> FullPath(const std::wstring& path) const override {
    return SizedText([&path](wchar_t* buffer, DWORD size) {
      return GetFullPathNameW(path.c_str(), size, buffer, nullptr);
    });
  }

  Result<std::wstring> FinalPath(const std::wstring& path) const override {
    const UniqueHandle file = OpenShared(path, FILE_READ_ATTRIBUTES);
    if (!file) return Result<std::wstring>::Failure(GetLastError());
    auto text = SizedText([&file](wchar_t* buffer, DWORD size) {
      return GetFinalPathNameByHandleW(file.get(), buffer, size,
                                       FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
    });
    if (text && text->starts_with(kExtendedPrefix)) text->erase(0, std::size(kExtendedPrefix) - 1);
    return text;
  }

  Result<std::vector<AccessEntry>> FolderAccess(const std::wstring& folder) const override {
    using Entries = Result<std::vector<AccessEntry>>;
    PSID owner = nullptr;
    PSID group = nullptr;
    PACL list = nullptr;
    PSECURITY_DESCRIPTOR raw = nullptr;
    std::wstring name(folder);
    const DWORD error = GetNamedSecurityInfoW(
        name.data(), SE_FILE_OBJECT,
        OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, &owner,
        &group, &list, nullptr, &raw);
    const std::unique_ptr<void, LocalFreer> descriptor(raw);
    if (error != ERROR_SUCCESS) return Entries::Failure(error);
    if (list == nullptr) return Entries::Failure(ERROR_NO_SECURITY_ON_OBJECT);
    std::vector<AccessEntry> entries;
    for (DWORD i = 0; i < list->AceCount; ++i) {
      void* ace = nullptr;
      if (GetAce(list, i, &ace) == FALSE) continue;
      const auto* header = static_cast<const ACE_HEADER*>(ace);
      AccessEntry entry;
      entry.allowed = header->AceType == ACCESS_ALLOWED_ACE_TYPE;
      if (entry.allowed) {
        auto* allowed = static_cast<ACCESS_ALLOWED_ACE*>(ace);
        entry.mask = allowed->Mask;
        LookUpAccount(&allowed->SidStart, entry);
      }
      entries.push_back(std::move(entry));
    }
    return entries;
  }
};

}  // namespace

TrustProvider& WindowsTrustProvider() {
  static WindowsTrust provider;
  return provider;
}

}  // namespace Vx::Platform
