#include "vxhost/subscriptions/signing_keys.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <memory>
#include <span>
#include <stdexcept>

#include <windows.h>

#include <wincrypt.h>

#include "hosting/loaded_module.h"
#include "hosting/text.h"
#include "security/authenticode_helper.h"

namespace Vx::Hosting::Tool {

using namespace Tessel::Security;

namespace {

constexpr std::uint64_t kUnitsPerDay = 864'000'000'000;

constexpr char kPinned[] =
    " is signed with a pinned key, so a client could have the service start it as SYSTEM with any "
    "arguments; use a copy without a signature or sign it with a key that is not pinned";

std::string ResourceText(HMODULE module, const wchar_t* name) {
  HRSRC const found = FindResourceW(module, name, RT_RCDATA);
  HGLOBAL const resource = found == nullptr ? nullptr : LoadResource(module, found);
  if (resource == nullptr) throw std::runtime_error("it has no list of pinned keys");
  return {static_cast<const char*>(LockResource(resource)), SizeofResource(module, found)};
}

// Checks only that each line can be a key. The configure step checks the full form
// (cmake/pins.cmake).
std::vector<std::string_view> KeysIn(std::string_view text) {
  constexpr std::size_t kKeyLength = 809;
  std::vector<std::string_view> keys;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(text.size(), line.size() + 1));
    if (line.empty() || line.front() == '#') continue;
    if (line.size() != kKeyLength || line.find_first_not_of("0123456789abcdef ") != line.npos) {
      throw std::runtime_error("its list of pinned keys is malformed");
    }
    keys.push_back(line);
  }
  return keys;
}

struct StoreCloser {
  void operator()(void* store) const noexcept { CertCloseStore(store, 0); }
};

Certificate Describe(const CERT_CONTEXT& context) {
  CERT_INFO& info = *context.pCertInfo;
  const CRYPT_BIT_BLOB& key = info.SubjectPublicKeyInfo.PublicKey;
  Certificate certificate;
  certificate.key = FormatPublicKey(std::as_bytes(std::span(key.pbData, key.cbData)));
  certificate.subject.resize(
      CertNameToStrW(X509_ASN_ENCODING, &info.Subject, CERT_X500_NAME_STR, nullptr, 0));
  const DWORD written =
      CertNameToStrW(X509_ASN_ENCODING, &info.Subject, CERT_X500_NAME_STR,
                     certificate.subject.data(), static_cast<DWORD>(certificate.subject.size()));
  certificate.subject.resize(written == 0 ? 0 : written - 1);
  certificate.end = std::uint64_t{info.NotAfter.dwHighDateTime} << 32 | info.NotAfter.dwLowDateTime;
  return certificate;
}

}  // namespace

ModulePins::ModulePins(const std::wstring& module) {
  try {
    const UniqueLibrary loaded(LoadLibraryExW(module.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE));
    if (loaded == nullptr) {
      throw std::runtime_error("it cannot be opened, error " + std::to_string(GetLastError()));
    }
    auto* const library = static_cast<HMODULE>(loaded.get());
    generalText = ResourceText(library, L"PINNED_KEYS_GENERAL");
    restrictedText = ResourceText(library, L"PINNED_KEYS_RESTRICTED");
    general = KeysIn(generalText);
    restricted = KeysIn(restrictedText);
  } catch (const std::runtime_error& error) {
    throw std::runtime_error("the pinned keys of " + Utf8(module) + " cannot be read: " +
                             error.what() + "; name another module with --dll");
  }
}

void RefusePinnedSignature(const std::wstring& program, KeySet general, KeySet restricted) {
  if (general.empty() && restricted.empty()) return;
  const VxAuthenticodeHelper helper;
  const auto lock = helper.AquireFileReadOnlyLock(program);
  if (lock == nullptr) {
    throw std::runtime_error("cannot read " + Utf8(program) + " to check its signature");
  }
  const std::vector<SignatureRecord> records = helper.CollectSignatures(program);
  if (VxAuthenticodeHelper::IsTrustedByWindows(records) &&
      (VxAuthenticodeHelper::IsKeyPinned(records, general) ||
       VxAuthenticodeHelper::IsKeyPinned(records, restricted))) {
    throw std::runtime_error(Utf8(program) + kPinned);
  }
}

std::string Fingerprint(std::string_view key) {
  std::vector<BYTE> der;
  for (std::size_t i = 0; i + 1 < key.size(); i += 3) {
    std::from_chars(&key[i], &key[i] + 2, der.emplace_back(), 16);
  }
  std::array<BYTE, 32> hash{};
  DWORD size = hash.size();
  if (CryptHashCertificate(0, CALG_SHA_256, 0, der.data(), static_cast<DWORD>(der.size()),
                           hash.data(), &size) == FALSE) {
    throw std::runtime_error("Windows cannot compute a SHA-256, error " +
                             std::to_string(GetLastError()));
  }
  std::string text = FormatPublicKey(std::as_bytes(std::span(hash)));
  std::erase(text, ' ');
  return text;
}

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

}  // namespace Vx::Hosting::Tool
