#pragma once

#include <windows.h>
// The trust headers need the types of this one.
#include <wincrypt.h>

#include <mscat.h>
#include <softpub.h>
#include <wintrust.h>

#include "platform/windows/deferred_library.h"

namespace Vx::Platform {

// The functions of wintrust.dll that judge a file. `acquireContext2` and `calcHash2` support
// SHA-256 and are null where Windows lacks them. No import library of this toolchain has them.
struct SignatureFunctions {
  using AcquireContext2 = BOOL WINAPI(HCATADMIN*, const GUID*, PCWSTR, const CERT_STRONG_SIGN_PARA*,
                                      DWORD);
  using CalcHash2 = BOOL WINAPI(HCATADMIN, HANDLE, DWORD*, BYTE*, DWORD);

  explicit SignatureFunctions(DeferredLibrary& wintrust) noexcept;

  // Whether all functions are there that every Windows has.
  bool Complete() const noexcept;

  decltype(WinVerifyTrust)* verify;
  decltype(WTHelperProvDataFromStateData)* providerOf;
  decltype(WTHelperGetProvSignerFromChain)* signerOf;
  decltype(WTHelperGetProvCertFromChain)* certificateOf;
  decltype(CryptCATAdminAcquireContext)* acquireContext;
  decltype(CryptCATAdminReleaseContext)* releaseContext;
  decltype(CryptCATAdminCalcHashFromFileHandle)* calcHash;
  decltype(CryptCATAdminEnumCatalogFromHash)* enumCatalog;
  decltype(CryptCATAdminReleaseCatalogContext)* releaseCatalog;
  decltype(CryptCATCatalogInfoFromContext)* catalogInfo;
  AcquireContext2* acquireContext2;
  CalcHash2* calcHash2;
};

}  // namespace Vx::Platform
