#include "platform/windows/signature_functions.h"

namespace Vx::Platform {

namespace {

template <typename Function>
void Find(DeferredLibrary& library, Function*& function, const char* name) {
  function = library.Find<Function>(name);
}

}  // namespace

SignatureFunctions::SignatureFunctions(DeferredLibrary& wintrust) noexcept {
  const auto require = [&](auto& function, const char* name) {
    Find(wintrust, function, name);
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
  Find(wintrust, acquireContext2, "CryptCATAdminAcquireContext2");
  Find(wintrust, calcHash2, "CryptCATAdminCalcHashFromFileHandle2");
}

}  // namespace Vx::Platform
