#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/trust_provider.h"
#include "simulator/simulated_files.h"

namespace Vx::Simulator {

struct SimulatedSignature {
  std::wstring key;         // the owner's name; empty for PinnedKey
  std::int32_t result = 0;  // the HRESULT of the verification
};

// The signatures of files in memory, each for an exact path. Windows verifies real files.
class SimulatedTrust final : public Platform::TrustProvider {
 public:
  explicit SimulatedTrust(const SimulatedFiles& machineFiles) : files(machineFiles) {}

  // Returns the public key that a program running on a simulated machine adds to its pinned keys.
  // It is not a valid encoding, so no real signature can have it.
  static std::vector<std::byte> PinnedKey();

  void Sign(const std::wstring& path, const SimulatedSignature& signature);

  Platform::SignatureVerdict VerifyEmbedded(const std::wstring& path,
                                            std::uint32_t index) const override;
  std::optional<Platform::CatalogHit> FindCatalog(const std::wstring& path,
                                                  Platform::CatalogFailure& failure) const override;
  Platform::SignatureVerdict VerifyInCatalog(const Platform::CatalogHit& catalog,
                                             std::uint32_t index) const override;

 private:
  const SimulatedFiles& files;
  mutable std::mutex mutex;
  std::map<std::wstring, SimulatedSignature> signatures;
};

}  // namespace Vx::Simulator
