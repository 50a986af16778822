#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/result.h"

namespace Vx::Platform {

// The names in a certificate. An absent field is empty.
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
  std::wstring subject;              // the whole subject as CertNameToStr formats it
  std::optional<SignerNames> names;  // empty if they could not be read
};

struct SignatureVerdict {
  std::int32_t result = 0;           // of WinVerifyTrust
  std::uint32_t secondaryCount = 0;  // signatures beyond the first
  std::optional<Signer> signer;      // present if the state data named one
};

// The catalog that contains a file's hash.
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

// Authenticode verification by Windows. Thread-safe. The caller decides which results suffice.
class TrustProvider {
 public:
  virtual ~TrustProvider() = default;

  // Verifies the embedded signature at `index`, without prompts or revocation checks. Like
  // VerifyInCatalog, it may fetch missing certificates and the list of trusted roots from the
  // network to build the chain, within Windows' own time limits.
  virtual SignatureVerdict VerifyEmbedded(const std::wstring& path, std::uint32_t index) const = 0;

  // Returns the catalog that contains the file's hash. On failure, `failure` receives the step.
  virtual std::optional<CatalogHit> FindCatalog(const std::wstring& path,
                                                CatalogFailure& failure) const = 0;

  virtual SignatureVerdict VerifyInCatalog(const CatalogHit& catalog,
                                           std::uint32_t index) const = 0;
};

}  // namespace Vx::Platform
