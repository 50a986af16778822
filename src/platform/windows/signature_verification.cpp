#include "platform/windows/signature_verification.h"

#include <cstddef>
#include <optional>
#include <span>
#include <string>

#include <windows.h>

namespace Vx::Platform {

namespace {

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

// One verification. Even a failed one leaves state, which the destructor's call closes.
class Verification {
 public:
  Verification(const SignatureFunctions& wintrust, DWORD unionChoice, const void* subject,
               DWORD index)
      : functions(wintrust),
        settings{.index = index, .flags = kVerifySpecific | kGetSecondaryCount},
        data{.uiChoice = WTD_UI_NONE,
             .revocationChecks = WTD_REVOKE_NONE,
             .unionChoice = unionChoice,
             .subject = subject,
             .stateAction = WTD_STATEACTION_VERIFY,
             .provFlags = WTD_REVOCATION_CHECK_NONE,
             .uiContext = WTD_UICONTEXT_EXECUTE,
             .signatureSettings = &settings},
        result(VerifyTrust(wintrust, data)) {}
  Verification(const Verification&) = delete;
  Verification& operator=(const Verification&) = delete;
  ~Verification() {
    data.stateAction = WTD_STATEACTION_CLOSE;
    VerifyTrust(functions, data);
  }

  LONG TrustResult() const { return result; }
  DWORD SecondaryCount() const { return settings.secondarySignatures; }

  // Returns the signer's certificate, owned by this verification, or null if the state names none.
  const CERT_CONTEXT* SignerCertificate() const {
    if (data.stateData == nullptr) return nullptr;
    CRYPT_PROVIDER_DATA* provider = functions.providerOf(data.stateData);
    if (provider == nullptr) return nullptr;
    CRYPT_PROVIDER_SGNR* signer = functions.signerOf(provider, 0, FALSE, 0);
    if (signer == nullptr) return nullptr;
    const CRYPT_PROVIDER_CERT* certificate = functions.certificateOf(signer, 0);
    return certificate == nullptr ? nullptr : certificate->pCert;
  }

 private:
  const SignatureFunctions& functions;
  SignatureSettings settings;
  TrustData data;
  LONG result;
};

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

}  // namespace

SignatureVerdict VerifySignature(const SignatureFunctions& functions, DWORD unionChoice,
                                 const void* subject, std::uint32_t index) {
  const Verification verification(functions, unionChoice, subject, index);
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

}  // namespace Vx::Platform
