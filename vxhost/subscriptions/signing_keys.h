#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "security/pinned_keys.h"

namespace Vx::Hosting::Tool {

// The keys that a module trusts, as listed in a resource of its file. The module itself uses the
// copy compiled into its code.
class ModulePins {
 public:
  // Reads the file without running its code. Throws std::runtime_error with advice for the user if
  // it cannot be read or has no such resource.
  explicit ModulePins(const std::wstring& module);
  ModulePins(const ModulePins&) = delete;
  ModulePins& operator=(const ModulePins&) = delete;

  // Valid for the life of this object.
  Tessel::Security::KeySet General() const { return general; }
  Tessel::Security::KeySet Restricted() const { return restricted; }

 private:
  std::string generalText;
  std::string restrictedText;
  std::vector<std::string_view> general;  // lines of the resource's texts
  std::vector<std::string_view> restricted;
};

// Throws std::runtime_error if Windows accepts a signature of `program` and one was made with a key
// in either set, wherever the file is. In a protected location, the module would start it as SYSTEM
// for any client, with arguments of the client's choice, and some of this tool's arguments name a
// library to load or a file to write. Also throws if the file cannot be read. Otherwise, a client
// that starts this program could hide the signature by holding the file open without sharing.
void RefusePinnedSignature(const std::wstring& program, Tessel::Security::KeySet general,
                           Tessel::Security::KeySet restricted);

// Returns the SHA-256 of a key's DER encoding in lower-case hexadecimal, as printed by "openssl rsa
// -RSAPublicKey_out -outform DER | sha256sum".
std::string Fingerprint(std::string_view key);

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

}  // namespace Vx::Hosting::Tool
