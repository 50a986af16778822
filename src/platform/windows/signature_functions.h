#pragma once

#include <windows.h>
// The trust headers need these types.
#include <wincrypt.h>

#include <mscat.h>
#include <softpub.h>
#include <wintrust.h>

#include "platform/windows/deferred_library.h"

namespace Vx::Platform {

// wintrust.dll's functions for checking a file, absent from this toolchain's import libraries.
// `acquireContext2` and `calcHash2` support SHA-256 and are null if Windows lacks them.
struct SignatureFunctions {
  using AcquireContext2 = BOOL WINAPI(HCATADMIN*, const GUID*, PCWSTR, const CERT_STRONG_SIGN_PARA*,
                                      DWORD);
  using CalcHash2 = BOOL WINAPI(HCATADMIN, HANDLE, DWORD*, BYTE*, DWORD);

  explicit SignatureFunctions(DeferredLibrary& wintrust) noexcept;

  // Returns whether all functions that every Windows has were found.
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
