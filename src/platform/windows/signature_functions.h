#pragma once

#include <windows.h>
// The headers below need its types.
#include <wincrypt.h>

#include <mscat.h>
#include <softpub.h>
#include <wintrust.h>

#include "platform/windows/deferred_library.h"

namespace Vx::Platform {

// wintrust.dll's functions for checking a file, which this toolchain's import libraries lack.
// `acquireContext2` and `calcHash2` support SHA-256 and are null if Windows lacks them.
struct SignatureFunctions {
  explicit SignatureFunctions(DeferredLibrary& wintrust) noexcept;

  // Returns whether all functions except those two were found.
  bool Complete() const noexcept { return complete; }

  decltype(WinVerifyTrust)* verify = nullptr;
  decltype(WTHelperProvDataFromStateData)* providerOf = nullptr;
  decltype(WTHelperGetProvSignerFromChain)* signerOf = nullptr;
  decltype(WTHelperGetProvCertFromChain)* certificateOf = nullptr;
  decltype(CryptCATAdminAcquireContext)* acquireContext = nullptr;
  decltype(CryptCATAdminReleaseContext)* releaseContext = nullptr;
  decltype(CryptCATAdminCalcHashFromFileHandle)* calcHash = nullptr;
  decltype(CryptCATAdminEnumCatalogFromHash)* enumCatalog = nullptr;
  decltype(CryptCATAdminReleaseCatalogContext)* releaseCatalog = nullptr;
  decltype(CryptCATCatalogInfoFromContext)* catalogInfo = nullptr;
  decltype(CryptCATAdminAcquireContext2)* acquireContext2 = nullptr;
  decltype(CryptCATAdminCalcHashFromFileHandle2)* calcHash2 = nullptr;

 private:
  bool complete = true;
};

}  // namespace Vx::Platform
