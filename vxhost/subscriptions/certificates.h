#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Vx::Host {

// What an operator wants to know of a certificate.
struct Certificate {
  std::string key;        // its public key, in the form in which keys are pinned
  std::wstring subject;   // "CN=..., O=..."
  std::uint64_t end = 0;  // a FILETIME, in UTC
};

// Returns the certificate of a certificate file (DER or PEM), or those in a file's first embedded
// signature. Empty when Windows finds none. Does not verify them.
std::vector<Certificate> CertificatesIn(const std::wstring& path);

// Returns the certificate of `key` with the latest end, or null.
const Certificate* CertificateOf(const std::vector<Certificate>& certificates,
                                 std::string_view key);

// Whole days from `now`, a FILETIME, until the end; negative from the moment of the end on.
std::int64_t DaysLeft(const Certificate& certificate, std::uint64_t now);

// The day of the end, "2045-01-01".
std::wstring EndDate(const Certificate& certificate);

// "2045-01-01, 6642 days left", or "2016-01-01, which is over".
std::wstring Lifetime(const Certificate& certificate, std::uint64_t now);

// Returns the SHA-256 of a key's DER in lower-case hexadecimal digits: what
// "openssl rsa -RSAPublicKey_out -outform DER | sha256sum" prints for it.
std::string Fingerprint(std::string_view key);

}  // namespace Vx::Host
