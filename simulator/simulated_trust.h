#pragma once

#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/trust_provider.h"

namespace Vx::Simulator {

// What Windows says of signatures: for the paths that were given a signer, that they are well
// signed and that the folders on the way belong to the system; for all others the real answer.
class SimulatedTrust final : public Platform::TrustProvider {
 public:
  // `publicKey` as in Platform::Signer.
  void Sign(const std::wstring& path, std::vector<std::byte> publicKey);

  Platform::SignatureVerdict VerifyEmbedded(const std::wstring& path,
                                            std::uint32_t index) const override;
  std::optional<Platform::CatalogHit> FindCatalog(const std::wstring& path,
                                                  Platform::CatalogFailure& failure) const override;
  Platform::SignatureVerdict VerifyInCatalog(const Platform::CatalogHit& catalog,
                                             std::uint32_t index) const override;
  Platform::Result<std::wstring> FullPath(const std::wstring& path) const override;
  Platform::Result<std::wstring> FinalPath(const std::wstring& path) const override;
  Platform::Result<std::wstring> FinalPathOf(Platform::RawHandle file) const override;
  Platform::Result<std::vector<Platform::AccessEntry>> FolderAccess(
      const std::wstring& folder) const override;

 private:
  std::optional<std::vector<std::byte>> KeyOf(const std::wstring& path) const;

  mutable std::mutex mutex;
  std::map<std::wstring, std::vector<std::byte>> keys;
};

}  // namespace Vx::Simulator
