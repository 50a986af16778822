#include "vxhost/subscriptions/certificates.h"

#include <array>
#include <cstddef>
#include <memory>
#include <span>
#include <stdexcept>

#include <windows.h>

#include <wincrypt.h>

#include "hosting/text.h"
#include "security/signature_record.h"

namespace Vx::Hosting::Tool {

namespace {

constexpr std::uint64_t kUnitsPerDay = 864'000'000'000;

struct StoreCloser {
  void operator()(void* store) const noexcept { CertCloseStore(store, 0); }
};

Certificate Describe(const CERT_CONTEXT& context) {
  CERT_INFO& info = *context.pCertInfo;
  const CRYPT_BIT_BLOB& key = info.SubjectPublicKeyInfo.PublicKey;
  Certificate certificate;
  certificate.key =
      Tessel::Security::FormatPublicKey(std::as_bytes(std::span(key.pbData, key.cbData)));
  certificate.subject.resize(
      CertNameToStrW(X509_ASN_ENCODING, &info.Subject, CERT_X500_NAME_STR, nullptr, 0));
  const DWORD written =
      CertNameToStrW(X509_ASN_ENCODING, &info.Subject, CERT_X500_NAME_STR,
                     certificate.subject.data(), static_cast<DWORD>(certificate.subject.size()));
  certificate.subject.resize(written == 0 ? 0 : written - 1);
  certificate.end = std::uint64_t{info.NotAfter.dwHighDateTime} << 32 | info.NotAfter.dwLowDateTime;
  return certificate;
}

unsigned DigitOf(char digit) {
  return static_cast<unsigned>(digit <= '9' ? digit - '0' : digit - 'a' + 10);
}

}  // namespace

std::vector<Certificate> CertificatesIn(const std::wstring& path) {
  std::vector<Certificate> certificates;
  HCERTSTORE opened = nullptr;
  if (CryptQueryObject(CERT_QUERY_OBJECT_FILE, path.c_str(),
                       CERT_QUERY_CONTENT_FLAG_CERT | CERT_QUERY_CONTENT_FLAG_PKCS7_SIGNED_EMBED,
                       CERT_QUERY_FORMAT_FLAG_ALL, 0, nullptr, nullptr, nullptr, &opened, nullptr,
                       nullptr) == FALSE) {
    return certificates;
  }
  const std::unique_ptr<void, StoreCloser> store(opened);
  const CERT_CONTEXT* context = nullptr;
  // Each call frees the context passed to it.
  while ((context = CertEnumCertificatesInStore(store.get(), context)) != nullptr) {
    certificates.push_back(Describe(*context));
  }
  return certificates;
}

const Certificate* CertificateOf(const std::vector<Certificate>& certificates,
                                 std::string_view key) {
  const Certificate* last = nullptr;
  for (const Certificate& certificate : certificates) {
    if (certificate.key == key && (last == nullptr || last->end < certificate.end)) {
      last = &certificate;
    }
  }
  return last;
}

std::int64_t DaysLeft(const Certificate& certificate, std::uint64_t now) {
  if (certificate.end > now) {
    return static_cast<std::int64_t>((certificate.end - now) / kUnitsPerDay);
  }
  return -1 - static_cast<std::int64_t>((now - certificate.end) / kUnitsPerDay);
}

std::wstring EndDate(const Certificate& certificate) {
  return DateTimeText(certificate.end).substr(0, 10);
}

std::wstring Lifetime(const Certificate& certificate, std::uint64_t now) {
  const std::int64_t days = DaysLeft(certificate, now);
  return EndDate(certificate) +
         (days < 0 ? L", expired" : L", " + std::to_wstring(days) + L" days left");
}

std::string Fingerprint(std::string_view key) {
  std::vector<BYTE> der;
  for (std::size_t i = 0; i + 1 < key.size(); i += 3) {
    der.push_back(static_cast<BYTE>(DigitOf(key[i]) << 4 | DigitOf(key[i + 1])));
  }
  std::array<BYTE, 32> hash{};
  DWORD size = hash.size();
  if (CryptHashCertificate(0, CALG_SHA_256, 0, der.data(), static_cast<DWORD>(der.size()),
                           hash.data(), &size) == FALSE) {
    throw std::runtime_error("Windows cannot compute a SHA-256, error " +
                             std::to_string(GetLastError()));
  }
  std::string text = Tessel::Security::FormatPublicKey(std::as_bytes(std::span(hash)));
  std::erase(text, ' ');
  return text;
}

}  // namespace Vx::Hosting::Tool
