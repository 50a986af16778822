#include "platform/trust_provider.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <memory>
#include <span>
#include <string_view>
#include <utility>

#include <windows.h>
// The headers below need its types.
#include <wincrypt.h>

#include <mscat.h>
#include <softpub.h>
#include <wintrust.h>

#include "platform/unique_handle.h"
#include "platform/windows/capabilities.h"
#include "platform/windows/deferred_library.h"
#include "platform/windows/file_handle.h"

namespace Vx::Platform {

namespace {

// wintrust.dll's functions for checking a file, which this toolchain's import libraries lack.
// `acquireContext2` and `calcHash2` support SHA-256 and are null if Windows lacks them.
struct SignatureFunctions {
  explicit SignatureFunctions(DeferredLibrary& wintrust) noexcept {
    const auto find = [&](auto*& function, const char* name) {
      function = wintrust.Find<std::remove_reference_t<decltype(*function)>>(name);
      return function != nullptr;
    };
    const auto require = [&](auto& function, const char* name) {
      complete = find(function, name) && complete;
    };
    require(verify, "WinVerifyTrust");
    require(providerOf, "WTHelperProvDataFromStateData");
    require(signerOf, "WTHelperGetProvSignerFromChain");
    require(certificateOf, "WTHelperGetProvCertFromChain");
    require(acquireContext, "CryptCATAdminAcquireContext");
    require(releaseContext, "CryptCATAdminReleaseContext");
    require(calcHash, "CryptCATAdminCalcHashFromFileHandle");
    require(enumCatalog, "CryptCATAdminEnumCatalogFromHash");
    require(releaseCatalog, "CryptCATAdminReleaseCatalogContext");
    require(catalogInfo, "CryptCATCatalogInfoFromContext");
    find(acquireContext2, "CryptCATAdminAcquireContext2");
    find(calcHash2, "CryptCATAdminCalcHashFromFileHandle2");
  }

  decltype(WinVerifyTrust)* verify = nullptr;
  decltype(WTHelperProvDataFromStateData)* providerOf = nullptr;
  decltype(WTHelperGetProvSignerFromChain)* signerOf = nullptr;
  decltype(WTHelperGetProvCertFromChain)* certificateOf = nullptr;
  decltype(CryptCATAdminAcquireContext)* acquireContext = nullptr;
  decltype(CryptCATAdminReleaseContext)* releaseContext = nullptr;
  decltype(CryptCATAdminCalcHashFromFileHandle)* calcHash = nullptr;
  decltype(CryptCATAdminEnumCatalogFromHash)* enumCatalog = nullptr;
  decltype(CryptCATAdminReleaseCatalogContext)* releaseCatalog = nullptr;
  decltype(CryptCATCatalogInfoFromContext)* catalogInfo = nullptr;
  decltype(CryptCATAdminAcquireContext2)* acquireContext2 = nullptr;
  decltype(CryptCATAdminCalcHashFromFileHandle2)* calcHash2 = nullptr;

  bool complete = true;  // all required functions were found
};

// WINTRUST_SIGNATURE_SETTINGS and its WINTRUST_DATA, newer than this toolchain's headers.
struct SignatureSettings {
  DWORD size = sizeof(SignatureSettings);
  DWORD index = 0;
  DWORD flags = 0;
  DWORD secondarySignatures = 0;  // out
  DWORD verifiedIndex = 0;        // out
  CERT_STRONG_SIGN_PARA* cryptoPolicy = nullptr;
};
static_assert(sizeof(SignatureSettings) == 32);
static_assert(offsetof(SignatureSettings, cryptoPolicy) == 24);

constexpr DWORD kVerifySpecific = 0x1;     // WSS_VERIFY_SPECIFIC
constexpr DWORD kGetSecondaryCount = 0x2;  // WSS_GET_SECONDARY_SIG_COUNT

struct TrustData {
  DWORD size = sizeof(TrustData);
  void* policyCallbackData = nullptr;
  void* sipClientData = nullptr;
  DWORD uiChoice = 0;
  DWORD revocationChecks = 0;
  DWORD unionChoice = 0;
  const void* subject = nullptr;
  DWORD stateAction = 0;
  HANDLE stateData = nullptr;
  wchar_t* urlReference = nullptr;
  DWORD provFlags = 0;
  DWORD uiContext = 0;
  SignatureSettings* signatureSettings = nullptr;
};
static_assert(sizeof(TrustData) == 88);
static_assert(offsetof(TrustData, subject) == 40);
static_assert(offsetof(TrustData, stateData) == 56);
static_assert(offsetof(TrustData, signatureSettings) == 80);

constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

LONG VerifyTrust(const SignatureFunctions& functions, TrustData& data) {
  GUID action = WINTRUST_ACTION_GENERIC_VERIFY_V2;
  // Unlike null, this window handle forbids prompts from any policy provider.
  return functions.verify(static_cast<HWND>(INVALID_HANDLE_VALUE), &action, &data);
}

// Returns the signer's certificate, owned by the state, or null if the state names none.
const CERT_CONTEXT* SignerCertificate(const SignatureFunctions& functions, HANDLE stateData) {
  if (stateData == nullptr) return nullptr;
  CRYPT_PROVIDER_DATA* provider = functions.providerOf(stateData);
  if (provider == nullptr) return nullptr;
  CRYPT_PROVIDER_SGNR* signer = functions.signerOf(provider, 0, FALSE, 0);
  if (signer == nullptr) return nullptr;
  const CRYPT_PROVIDER_CERT* certificate = functions.certificateOf(signer, 0);
  return certificate == nullptr ? nullptr : certificate->pCert;
}

// Uses the reported length, because a name with a NUL must not compare equal to a shorter one.
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

// Returns whether the encoded name can be parsed. The functions that read one attribute return an
// empty string both for an absent attribute and for an unreadable name.
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

// Verifies the signature at `index` of a file and reads the signer. `functions` must be complete.
// `unionChoice` names the member of WINTRUST_DATA's union that `subject` points to: a file or a
// catalog member.
SignatureVerdict VerifySignature(const SignatureFunctions& functions, DWORD unionChoice,
                                 const void* subject, std::uint32_t index) {
  SignatureSettings settings{.index = index, .flags = kVerifySpecific | kGetSecondaryCount};
  TrustData data{.uiChoice = WTD_UI_NONE,
                 .revocationChecks = WTD_REVOKE_NONE,
                 .unionChoice = unionChoice,
                 .subject = subject,
                 .stateAction = WTD_STATEACTION_VERIFY,
                 .provFlags = WTD_REVOCATION_CHECK_NONE,
                 .uiContext = WTD_UICONTEXT_EXECUTE,
                 .signatureSettings = &settings};
  SignatureVerdict verdict{.result = VerifyTrust(functions, data),
                           .secondaryCount = settings.secondarySignatures,
                           .signer = std::nullopt};
  // Even a failed verification leaves state that must be closed.
  const auto close = [&functions](TrustData* verified) {
    verified->stateAction = WTD_STATEACTION_CLOSE;
    VerifyTrust(functions, *verified);
  };
  const std::unique_ptr<TrustData, decltype(close)> state(&data, close);
  const CERT_CONTEXT* certificate = SignerCertificate(functions, data.stateData);
  if (certificate == nullptr) return verdict;
  const CRYPT_BIT_BLOB& key = certificate->pCertInfo->SubjectPublicKeyInfo.PublicKey;
  const auto bytes = std::as_bytes(std::span(key.pbData, key.cbData));
  verdict.signer = Signer{.publicKey = {bytes.begin(), bytes.end()},
                          .subject = NameText(certificate->pCertInfo->Subject),
                          .names = NamesOf(certificate)};
  return verdict;
}

constexpr wchar_t kCatalogHash[] = L"SHA256";

struct CatalogAdminCloser {
  void operator()(void* admin) const noexcept { release(admin, 0); }

  decltype(CryptCATAdminReleaseContext)* release = nullptr;
};

using AdminHandle = std::unique_ptr<void, CatalogAdminCloser>;

// A context for searching the signed catalogs of Windows and of drivers by hash.
struct CatalogAdmin {
  AdminHandle handle;
  bool sha256 = false;  // otherwise SHA-1, as in the older calls
};

// Falls back to the older call if the newer one is missing or, as under Wine, not implemented.
Result<CatalogAdmin> OpenCatalogs(const SignatureFunctions& functions) {
  const GUID subsystem = DRIVER_ACTION_VERIFY;
  HCATADMIN admin = nullptr;
  const auto owned = [&](bool sha256) {
    return CatalogAdmin{.handle = AdminHandle(admin, {functions.releaseContext}), .sha256 = sha256};
  };
  if (functions.acquireContext2 != nullptr) {
    if (functions.acquireContext2(&admin, &subsystem, kCatalogHash, nullptr, 0) != FALSE) {
      return owned(true);
    }
    const DWORD error = GetLastError();
    if (error != ERROR_CALL_NOT_IMPLEMENTED) return Failure(error);
  }
  if (functions.acquireContext(&admin, &subsystem, 0) == FALSE) return Failure(GetLastError());
  return owned(false);
}

// Returns the hash by which `admin` looks up the open file `file`. Reads the whole file.
Result<std::vector<std::byte>> CatalogHashOf(const SignatureFunctions& functions,
                                             const CatalogAdmin& admin, HANDLE file) {
  // A SHA-256 context finds nothing by the older hash.
  if (admin.sha256 && functions.calcHash2 == nullptr) return Failure(ERROR_CALL_NOT_IMPLEMENTED);
  const auto calculate = [&](DWORD& size, BYTE* bytes) {
    return admin.sha256 ? functions.calcHash2(admin.handle.get(), file, &size, bytes, 0)
                        : functions.calcHash(file, &size, bytes, 0);
  };
  DWORD size = 0;
  if (calculate(size, nullptr) == FALSE) {
    const DWORD error = GetLastError();
    if (error != ERROR_INSUFFICIENT_BUFFER) return Failure(error);
  }
  if (size == 0) return Failure(ERROR_INVALID_DATA);
  std::vector<std::byte> hash(size);
  if (calculate(size, reinterpret_cast<BYTE*>(hash.data())) == FALSE) {
    return Failure(GetLastError());
  }
  hash.resize(std::min<std::size_t>(hash.size(), size));
  return hash;
}

// Returns a catalog member's name: its hash in upper-case hexadecimal digits.
std::wstring MemberTag(const std::vector<std::byte>& hash) {
  constexpr std::wstring_view digits = L"0123456789ABCDEF";
  std::wstring tag;
  tag.reserve(hash.size() * 2);
  for (const std::byte byte : hash) {
    tag += digits[std::to_integer<std::size_t>(byte) >> 4];
    tag += digits[std::to_integer<std::size_t>(byte) & 15];
  }
  return tag;
}

Result<std::wstring> CatalogOf(const SignatureFunctions& functions, const CatalogAdmin& admin,
                               std::vector<std::byte>& hash) {
  HCATINFO found = functions.enumCatalog(admin.handle.get(), reinterpret_cast<BYTE*>(hash.data()),
                                         static_cast<DWORD>(hash.size()), 0, nullptr);
  if (found == nullptr) return Failure(GetLastError());
  CATALOG_INFO info{};
  info.cbStruct = sizeof info;
  const BOOL named = functions.catalogInfo(found, &info, 0);
  const DWORD error = GetLastError();
  functions.releaseCatalog(admin.handle.get(), found, 0);
  if (named == FALSE) return Failure(error);
  info.wszCatalogFile[std::size(info.wszCatalogFile) - 1] = L'\0';
  return std::wstring(info.wszCatalogFile);
}

// Opens a program for verification by handle. Verification by path would open the file again,
// and could let whatever is there by then impersonate this process.
UniqueHandle OpenProgram(const std::wstring& path, DWORD share) {
  return OpenDiskFile(path, GENERIC_READ, share);
}

// Returns the verdict for a file that cannot be opened, or if Windows lacks the functions.
SignatureVerdict Unverifiable(DWORD error) {
  return {.result = HRESULT_FROM_WIN32(error), .secondaryCount = 0, .signer = std::nullopt};
}

class WindowsTrust final : public TrustProvider {
 public:
  explicit WindowsTrust(DeferredLibrary& library) : wintrust(library) {}

  SignatureVerdict VerifyEmbedded(const std::wstring& path, std::uint32_t index) const override {
    const SignatureFunctions functions(wintrust);
    if (!functions.complete) return Unverifiable(GetLastError());
    const UniqueHandle file = OpenProgram(path, FILE_SHARE_READ | FILE_SHARE_DELETE);
    if (!file) return Unverifiable(GetLastError());
    WINTRUST_FILE_INFO info{};
    info.cbStruct = sizeof info;
    info.pcwszFilePath = path.c_str();
    info.hFile = file.get();
    return VerifySignature(functions, WTD_CHOICE_FILE, &info, index);
  }

  std::optional<CatalogHit> FindCatalog(const std::wstring& path,
                                        CatalogFailure& failure) const override {
    const auto failed = [&failure](CatalogStep step, DWORD error) {
      failure = {.step = step, .error = error};
      return std::nullopt;
    };
    const SignatureFunctions functions(wintrust);
    if (!functions.complete) return failed(CatalogStep::AcquireContext, GetLastError());
    const auto admin = OpenCatalogs(functions);
    if (!admin) return failed(CatalogStep::AcquireContext, admin.Error());
    const UniqueHandle file = OpenProgram(path, kShareAll);
    if (!file) return failed(CatalogStep::OpenFile, GetLastError());
    auto hash = CatalogHashOf(functions, *admin, file.get());
    if (!hash) return failed(CatalogStep::Hash, hash.Error());
    auto catalog = CatalogOf(functions, *admin, *hash);
    if (!catalog) return failed(CatalogStep::FindCatalog, catalog.Error());
    return CatalogHit{.catalogPath = *std::move(catalog),
                      .memberTag = MemberTag(*hash),
                      .memberPath = path,
                      .hash = *std::move(hash)};
  }

  SignatureVerdict VerifyInCatalog(const CatalogHit& catalog, std::uint32_t index) const override {
    const SignatureFunctions functions(wintrust);
    if (!functions.complete) return Unverifiable(GetLastError());
    const UniqueHandle file = OpenProgram(catalog.memberPath, kShareAll);
    if (!file) return Unverifiable(GetLastError());
    // The verification needs the context to determine which hash the catalog uses.
    const auto admin = OpenCatalogs(functions);
    std::vector<std::byte> hash = catalog.hash;
    WINTRUST_CATALOG_INFO info{};
    info.cbStruct = sizeof info;
    info.pcwszCatalogFilePath = catalog.catalogPath.c_str();
    info.pcwszMemberTag = catalog.memberTag.c_str();
    info.pcwszMemberFilePath = catalog.memberPath.c_str();
    info.hMemberFile = file.get();
    info.pbCalculatedFileHash = reinterpret_cast<BYTE*>(hash.data());
    info.cbCalculatedFileHash = static_cast<DWORD>(hash.size());
    info.hCatAdmin = admin ? admin->handle.get() : nullptr;
    return VerifySignature(functions, WTD_CHOICE_CATALOG, &info, index);
  }

 private:
  DeferredLibrary& wintrust;
};

}  // namespace

std::unique_ptr<TrustProvider> MakeTrustProvider(DeferredLibrary& wintrust) {
  return std::make_unique<WindowsTrust>(wintrust);
}

TrustProvider& WindowsTrustProvider() {
  static DeferredLibrary wintrust(L"wintrust.dll");
  static WindowsTrust provider(wintrust);
  return provider;
}

}  // namespace Vx::Platform
