#include "platform/windows/signature_functions.h"

namespace Vx::Platform {

SignatureFunctions::SignatureFunctions(DeferredLibrary& wintrust) noexcept
    : verify(wintrust.Find<decltype(WinVerifyTrust)>("WinVerifyTrust")),
      providerOf(
          wintrust.Find<decltype(WTHelperProvDataFromStateData)>("WTHelperProvDataFromStateData")),
      signerOf(wintrust.Find<decltype(WTHelperGetProvSignerFromChain)>(
          "WTHelperGetProvSignerFromChain")),
      certificateOf(
          wintrust.Find<decltype(WTHelperGetProvCertFromChain)>("WTHelperGetProvCertFromChain")),
      acquireContext(
          wintrust.Find<decltype(CryptCATAdminAcquireContext)>("CryptCATAdminAcquireContext")),
      releaseContext(
          wintrust.Find<decltype(CryptCATAdminReleaseContext)>("CryptCATAdminReleaseContext")),
      calcHash(wintrust.Find<decltype(CryptCATAdminCalcHashFromFileHandle)>(
          "CryptCATAdminCalcHashFromFileHandle")),
      enumCatalog(wintrust.Find<decltype(CryptCATAdminEnumCatalogFromHash)>(
          "CryptCATAdminEnumCatalogFromHash")),
      releaseCatalog(wintrust.Find<decltype(CryptCATAdminReleaseCatalogContext)>(
          "CryptCATAdminReleaseCatalogContext")),
      catalogInfo(wintrust.Find<decltype(CryptCATCatalogInfoFromContext)>(
          "CryptCATCatalogInfoFromContext")),
      acquireContext2(wintrust.Find<AcquireContext2>("CryptCATAdminAcquireContext2")),
      calcHash2(wintrust.Find<CalcHash2>("CryptCATAdminCalcHashFromFileHandle2")) {}

bool SignatureFunctions::Complete() const noexcept {
  return verify != nullptr && providerOf != nullptr && signerOf != nullptr &&
         certificateOf != nullptr && acquireContext != nullptr && releaseContext != nullptr &&
         calcHash != nullptr && enumCatalog != nullptr && releaseCatalog != nullptr &&
         catalogInfo != nullptr;
}

}  // namespace Vx::Platform
