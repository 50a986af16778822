#include "simulator/simulated_trust.h"

#include <algorithm>
#include <utility>

#include "platform/machine.h"

namespace Vx::Simulator {

namespace {

using Platform::Result;

constexpr std::uint32_t kFullControl = 0x10000000;  // GENERIC_ALL
constexpr auto kNoSignature = static_cast<std::int32_t>(0x800B0100);
constexpr wchar_t kSigner[] = L"Simulated Signer";

const Platform::TrustProvider& RealTrust() {
  return *Platform::WindowsMachine().trustProvider;
}

}  // namespace

void SimulatedTrust::Sign(const std::wstring& path, std::vector<std::byte> publicKey) {
  const std::lock_guard guard(mutex);
  keys[path] = std::move(publicKey);
}

std::optional<std::vector<std::byte>> SimulatedTrust::KeyOf(const std::wstring& path) const {
  const std::lock_guard guard(mutex);
  const auto found = keys.find(path);
  if (found == keys.end()) return std::nullopt;
  return found->second;
}

Platform::SignatureVerdict SimulatedTrust::VerifyEmbedded(const std::wstring& path,
                                                          std::uint32_t index) const {
  auto key = KeyOf(path);
  if (!key) return RealTrust().VerifyEmbedded(path, index);
  if (index != 0) return {.result = kNoSignature, .secondaryCount = 0, .signer = {}};
  Platform::SignerNames names;
  names.commonName = kSigner;
  names.issuerCommonName = kSigner;
  return {.result = 0,
          .secondaryCount = 0,
          .signer = Platform::Signer{.publicKey = *std::move(key),
                                     .subject = std::wstring(L"CN=") + kSigner,
                                     .names = std::move(names)}};
}

std::optional<Platform::CatalogHit> SimulatedTrust::FindCatalog(
    const std::wstring& path, Platform::CatalogFailure& failure) const {
  if (!KeyOf(path)) return RealTrust().FindCatalog(path, failure);
  failure = {.step = Platform::CatalogStep::FindCatalog, .error = 2};  // ERROR_FILE_NOT_FOUND
  return std::nullopt;
}

Platform::SignatureVerdict SimulatedTrust::VerifyInCatalog(const Platform::CatalogHit& catalog,
                                                           std::uint32_t index) const {
  return RealTrust().VerifyInCatalog(catalog, index);
}

Result<std::wstring> SimulatedTrust::FullPath(const std::wstring& path) const {
  return RealTrust().FullPath(path);
}

Result<std::wstring> SimulatedTrust::FinalPath(const std::wstring& path) const {
  if (KeyOf(path)) return path;
  return RealTrust().FinalPath(path);
}

Result<std::wstring> SimulatedTrust::FinalPathOf(Platform::RawHandle file) const {
  return RealTrust().FinalPathOf(file);
}

Result<std::vector<Platform::AccessEntry>> SimulatedTrust::FolderAccess(
    const std::wstring& folder) const {
  {
    const std::lock_guard guard(mutex);
    const auto below = [&folder](const auto& entry) {
      return entry.first.compare(0, folder.size(), folder) == 0;
    };
    if (std::none_of(keys.begin(), keys.end(), below)) return RealTrust().FolderAccess(folder);
  }
  return std::vector<Platform::AccessEntry>{{.allowed = true,
                                             .mask = kFullControl,
                                             .accountName = L"TrustedInstaller",
                                             .accountDomain = L"NT SERVICE"},
                                            {.allowed = true,
                                             .mask = kFullControl,
                                             .accountName = L"SYSTEM",
                                             .accountDomain = L"NT AUTHORITY"}};
}

}  // namespace Vx::Simulator
