#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Vx::Hosting::Tool {

// The properties of a certificate that an operator needs to know.
struct Certificate {
  std::string key;        // its public key, in the form used for pins
  std::wstring subject;   // "CN=..., O=..."
  std::uint64_t end = 0;  // expiry as a FILETIME, in UTC
};

// Returns the certificate in a certificate file (DER or PEM), or those in a file's first embedded
// signature, without verifying them. Returns none if Windows finds none.
std::vector<Certificate> CertificatesIn(const std::wstring& path);

// Returns the certificate of `key` that expires last, or null.
const Certificate* CertificateOf(const std::vector<Certificate>& certificates,
                                 std::string_view key);

// Returns the whole days from `now`, a FILETIME, until expiry. Negative once expired.
std::int64_t DaysLeft(const Certificate& certificate, std::uint64_t now);

// Returns the expiry date, "2045-01-01".
std::wstring EndDate(const Certificate& certificate);

// Returns "2045-01-01, 6642 days left", or "2016-01-01, expired".
std::wstring Lifetime(const Certificate& certificate, std::uint64_t now);

// Returns the SHA-256 of a key's DER encoding in lower-case hexadecimal, as printed by "openssl rsa
// -RSAPublicKey_out -outform DER | sha256sum".
std::string Fingerprint(std::string_view key);

}  // namespace Vx::Hosting::Tool
