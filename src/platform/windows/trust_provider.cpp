#include "platform/trust_provider.h"

#include <cstddef>
#include <utility>

#include <windows.h>
// The trust header needs the types of this one.
#include <wincrypt.h>

#include <wintrust.h>

#include "platform/unique_handle.h"
#include "platform/windows/capabilities.h"
#include "platform/windows/signature_catalogs.h"
#include "platform/windows/signature_verification.h"

namespace Vx::Platform {

namespace {

class WindowsTrust final : public TrustProvider {
 public:
  SignatureVerdict VerifyEmbedded(const std::wstring& path, std::uint32_t index) const override {
    WINTRUST_FILE_INFO file{};
    file.cbStruct = sizeof file;
    file.pcwszFilePath = path.c_str();
    return VerifySignature(WTD_CHOICE_FILE, &file, index);
  }

  std::optional<CatalogHit> FindCatalog(const std::wstring& path,
                                        CatalogFailure& failure) const override {
    const auto failed = [&failure](CatalogStep step, DWORD error) {
      failure = {.step = step, .error = error};
      return std::nullopt;
    };
    const auto admin = OpenCatalogs();
    if (!admin) return failed(CatalogStep::AcquireContext, admin.Error());
    const UniqueHandle file = AdoptFile(CreateFileW(
        path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
        OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) return failed(CatalogStep::OpenFile, GetLastError());
    auto hash = CatalogHashOf(*admin, file.get());
    if (!hash) return failed(CatalogStep::Hash, hash.Error());
    auto catalog = CatalogOf(*admin, *hash);
    if (!catalog) return failed(CatalogStep::FindCatalog, catalog.Error());
    return CatalogHit{.catalogPath = *std::move(catalog),
                      .memberTag = MemberTag(*hash),
                      .memberPath = path,
                      .hash = *std::move(hash)};
  }

  SignatureVerdict VerifyInCatalog(const CatalogHit& catalog, std::uint32_t index) const override {
    // The verification needs the context to know which hash the catalog is searched by.
    const auto admin = OpenCatalogs();
    std::vector<std::byte> hash = catalog.hash;
    WINTRUST_CATALOG_INFO info{};
    info.cbStruct = sizeof info;
    info.pcwszCatalogFilePath = catalog.catalogPath.c_str();
    info.pcwszMemberTag = catalog.memberTag.c_str();
    info.pcwszMemberFilePath = catalog.memberPath.c_str();
    info.pbCalculatedFileHash = reinterpret_cast<BYTE*>(hash.data());
    info.cbCalculatedFileHash = static_cast<DWORD>(hash.size());
    info.hCatAdmin = admin ? admin->handle.get() : nullptr;
    return VerifySignature(WTD_CHOICE_CATALOG, &info, index);
  }
};

}  // namespace

TrustProvider& WindowsTrustProvider() {
  static WindowsTrust provider;
  return provider;
}

}  // namespace Vx::Platform
