#include "platform/windows/signature_functions.h"

namespace Vx::Platform {

SignatureFunctions::SignatureFunctions(DeferredLibrary& wintrust) noexcept {
  const auto find = [&]<typename Function>(Function*& function, const char* name) {
    function = wintrust.Find<Function>(name);
  };
  const auto require = [&](auto& function, const char* name) {
    find(function, name);
    complete = complete && function != nullptr;
  };
  require(verify, "WinVerifyTrust");
  require(providerOf, "WTHelperProvDataFromStateData");
  require(signerOf, "WTHelperGetProvSignerFromChain");
  require(certificateOf, "WTHelperGetProvCertFromChain");
  require(acquireContext, "CryptCATAdminAcquireContext");
  require(releaseContext, "CryptCATAdminReleaseContext");
  require(calcHash, "CryptCATAdminCalcHashFromFileHandle");
  require(enumCatalog, "CryptCATAdminEnumCatalogFromHash");
  require(releaseCatalog, "CryptCATAdminReleaseCatalogContext");
  require(catalogInfo, "CryptCATCatalogInfoFromContext");
  find(acquireContext2, "CryptCATAdminAcquireContext2");
  find(calcHash2, "CryptCATAdminCalcHashFromFileHandle2");
}

}  // namespace Vx::Platform
