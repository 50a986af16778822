#include "simulator/simulated_trust.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "platform/machine.h"

namespace Vx::Simulator {

namespace {

constexpr auto kNoSignature = static_cast<std::int32_t>(0x800B0100);  // TRUST_E_NOSIGNATURE
constexpr Platform::ErrorCode kNotFound = 1168;                       // ERROR_NOT_FOUND
constexpr wchar_t kPinnedOwner[] = L"a pinned key";

std::vector<std::byte> KeyOf(std::wstring_view owner) {
  std::vector<std::byte> key;
  std::transform(owner.begin(), owner.end(), std::back_inserter(key),
                 [](wchar_t unit) { return static_cast<std::byte>(unit); });
  return key;
}

const Platform::TrustProvider& RealProvider() {
  return *Platform::WindowsMachine().trustProvider;
}

}  // namespace

std::vector<std::byte> SimulatedTrust::PinnedKey() {
  return KeyOf(kPinnedOwner);
}

void SimulatedTrust::Sign(const std::wstring& path, const SimulatedSignature& signature) {
  const std::lock_guard guard(mutex);
  signatures[path] = signature;
}

Platform::SignatureVerdict SimulatedTrust::VerifyEmbedded(const std::wstring& path,
                                                          std::uint32_t index) const {
  if (!files.Holds(path)) return RealProvider().VerifyEmbedded(path, index);
  const std::lock_guard guard(mutex);
  const auto found = signatures.find(path);
  if (found == signatures.end()) {
    return {.result = kNoSignature, .secondaryCount = 0, .signer = {}};
  }
  const SimulatedSignature& signature = found->second;
  const std::wstring owner = signature.key.empty() ? kPinnedOwner : signature.key;
  Platform::SignerNames names;
  names.commonName = owner;
  return {.result = signature.result,
          .secondaryCount = 0,
          .signer = Platform::Signer{
              .publicKey = KeyOf(owner), .subject = L"CN=" + owner, .names = std::move(names)}};
}

std::optional<Platform::CatalogHit> SimulatedTrust::FindCatalog(
    const std::wstring& path, Platform::CatalogFailure& failure) const {
  if (!files.Holds(path)) return RealProvider().FindCatalog(path, failure);
  failure = {.step = Platform::CatalogStep::FindCatalog, .error = kNotFound};
  return std::nullopt;
}

Platform::SignatureVerdict SimulatedTrust::VerifyInCatalog(const Platform::CatalogHit& catalog,
                                                           std::uint32_t index) const {
  return RealProvider().VerifyInCatalog(catalog, index);
}

}  // namespace Vx::Simulator
