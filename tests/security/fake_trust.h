#pragma once

#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/machine.h"
#include "platform/trust_provider.h"

namespace Vx::Tests {

// What the emulator lacks: several signatures, catalogs, results that depend on a chain, and access
// lists as Windows keeps them. Paths are resolved by the real thing unless `finalPaths` has them.
class FakeTrust : public Platform::TrustProvider {
 public:
  using Access = Platform::Result<std::vector<Platform::AccessEntry>>;

  Platform::SignatureVerdict VerifyEmbedded(const std::wstring& path,
                                            std::uint32_t index) const override {
    asked.push_back(L"embedded " + path + L" " + std::to_wstring(index));
    return At(embedded, index);
  }

  std::optional<Platform::CatalogHit> FindCatalog(
      const std::wstring& path, Platform::CatalogFailure& failure) const override {
    if (catalogFailure) {
      failure = *catalogFailure;
      return std::nullopt;
    }
    return Platform::CatalogHit{
        .catalogPath = L"C:\\x.cat", .memberTag = L"00FF", .memberPath = path, .hash = {}};
  }

  Platform::SignatureVerdict VerifyInCatalog(const Platform::CatalogHit& catalog,
                                             std::uint32_t index) const override {
    asked.push_back(L"catalog " + catalog.catalogPath + L" " + std::to_wstring(index));
    return At(inCatalog, index);
  }

  Platform::Result<std::wstring> FullPath(const std::wstring& path) const override {
    return Platform::WindowsMachine().trustProvider->FullPath(path);
  }

  Platform::Result<std::wstring> FinalPath(const std::wstring& path) const override {
    const auto found = finalPaths.find(path);
    if (found != finalPaths.end()) return found->second;
    return Platform::WindowsMachine().trustProvider->FinalPath(path);
  }

  // The answers to successive questions; the last one repeats.
  Access FolderAccess(const std::wstring& folder) const override {
    folders.push_back(folder);
    if (throws) throw std::runtime_error("no answer");
    return access.at(std::min(folders.size(), access.size()) - 1);
  }

  std::vector<Platform::SignatureVerdict> embedded;
  std::vector<Platform::SignatureVerdict> inCatalog;
  std::optional<Platform::CatalogFailure> catalogFailure;
  std::map<std::wstring, std::wstring> finalPaths;
  std::vector<Access> access;
  bool throws = false;
  mutable std::vector<std::wstring> asked;
  mutable std::vector<std::wstring> folders;

 private:
  static Platform::SignatureVerdict At(const std::vector<Platform::SignatureVerdict>& verdicts,
                                       std::uint32_t index) {
    if (index < verdicts.size()) return verdicts[index];
    return {.result = static_cast<std::int32_t>(0x800B0100), .secondaryCount = 0, .signer = {}};
  }
};

}  // namespace Vx::Tests
