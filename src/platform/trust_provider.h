#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/result.h"
#include "platform/unique_handle.h"

namespace Vx::Platform {

// The names in a certificate; a field that is not there is empty.
struct SignerNames {
  std::wstring commonName;
  std::wstring organisationalUnit;
  std::wstring locality;
  std::wstring organisation;
  std::wstring state;
  std::wstring country;
  std::wstring issuerCommonName;
};

struct Signer {
  std::vector<std::byte> publicKey;  // DER of the key inside SubjectPublicKeyInfo
  std::wstring subject;              // the whole subject as CertNameToStr writes it
  std::optional<SignerNames> names;  // empty when they could not be read
};

struct SignatureVerdict {
  std::int32_t result = 0;           // of WinVerifyTrust
  std::uint32_t secondaryCount = 0;  // signatures beyond the first
  std::optional<Signer> signer;      // present when the state data named one
};

// The catalog that vouches for a file.
struct CatalogHit {
  std::wstring catalogPath;
  std::wstring memberTag;   // upper-case hexadecimal of the hash
  std::wstring memberPath;  // the file
  std::vector<std::byte> hash;
};

enum class CatalogStep { AcquireContext, OpenFile, Hash, FindCatalog };
struct CatalogFailure {
  CatalogStep step = CatalogStep::AcquireContext;
  ErrorCode error = 0;
};

// One entry of an access list: only what the rules look at.
struct AccessEntry {
  bool allowed = false;  // an access-allowed entry
  std::uint32_t mask = 0;
  std::wstring accountName;  // empty when the SID has no account
  std::wstring accountDomain;
};

// Authenticode as Windows sees it, and who may change a folder. Any thread; keeps no state between
// calls; closes what it opens. Says nothing about what is good enough: that is the caller's rule.
class TrustProvider {
 public:
  virtual ~TrustProvider() = default;

  // Verifies signature number `index` of the file itself; no prompts, no revocation checks.
  virtual SignatureVerdict VerifyEmbedded(const std::wstring& path, std::uint32_t index) const = 0;

  // The catalog that holds the file's SHA-256, or the step that failed.
  virtual std::optional<CatalogHit> FindCatalog(const std::wstring& path,
                                                CatalogFailure& failure) const = 0;

  virtual SignatureVerdict VerifyInCatalog(const CatalogHit& catalog,
                                           std::uint32_t index) const = 0;

  // `path` as Windows reads it before it opens anything: slashes, "." and "..", trailing dots and
  // blanks. Looks at the text only; the file need not exist.
  virtual Result<std::wstring> FullPath(const std::wstring& path) const = 0;

  // Where the existing file `path` lies once links, mount points and short names are followed,
  // without the "\\?\" in front.
  virtual Result<std::wstring> FinalPath(const std::wstring& path) const = 0;

  // The same of an open file.
  virtual Result<std::wstring> FinalPathOf(RawHandle file) const = 0;

  // The discretionary access list of a folder; an error when it cannot be read or there is none.
  virtual Result<std::vector<AccessEntry>> FolderAccess(const std::wstring& folder) const = 0;
};

}  // namespace Vx::Platform
