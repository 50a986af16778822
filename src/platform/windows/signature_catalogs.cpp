#include "platform/windows/signature_catalogs.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include <windows.h>
// The catalog header needs the types of this one.
#include <wincrypt.h>

#include <mscat.h>
#include <softpub.h>

#include "platform/windows/system_library.h"

namespace Vx::Platform {

namespace {

constexpr wchar_t kCatalogHash[] = L"SHA256";

// The calls that know SHA-256, which no import library of this toolchain has.
using AcquireContext2 = BOOL WINAPI(HCATADMIN*, const GUID*, PCWSTR, const CERT_STRONG_SIGN_PARA*,
                                    DWORD);
using CalcHash2 = BOOL WINAPI(HCATADMIN, HANDLE, DWORD*, BYTE*, DWORD);
constexpr wchar_t kWintrust[] = L"wintrust.dll";  // an import of this module

}  // namespace

void CatalogAdminCloser::operator()(void* admin) const noexcept {
  CryptCATAdminReleaseContext(admin, 0);
}

Result<CatalogAdmin> OpenCatalogs() {
  const GUID subsystem = DRIVER_ACTION_VERIFY;
  HCATADMIN admin = nullptr;
  if (auto* acquire = SystemFunction<AcquireContext2>(kWintrust, "CryptCATAdminAcquireContext2")) {
    if (acquire(&admin, &subsystem, kCatalogHash, nullptr, 0) != FALSE) {
      return CatalogAdmin{.handle = CatalogAdminHandle(admin), .sha256 = true};
    }
    const DWORD error = GetLastError();
    if (error != ERROR_CALL_NOT_IMPLEMENTED) return Result<CatalogAdmin>::Failure(error);
  }
  if (CryptCATAdminAcquireContext(&admin, &subsystem, 0) == FALSE) {
    return Result<CatalogAdmin>::Failure(GetLastError());
  }
  return CatalogAdmin{.handle = CatalogAdminHandle(admin), .sha256 = false};
}

Result<std::vector<std::byte>> CatalogHashOf(const CatalogAdmin& admin, HANDLE file) {
  using Bytes = Result<std::vector<std::byte>>;
  auto* calc2 = SystemFunction<CalcHash2>(kWintrust, "CryptCATAdminCalcHashFromFileHandle2");
  // A context for SHA-256 finds nothing by the older hash.
  if (admin.sha256 && calc2 == nullptr) return Bytes::Failure(ERROR_CALL_NOT_IMPLEMENTED);
  const auto calculate = [&](DWORD& size, BYTE* bytes) {
    return admin.sha256 ? calc2(admin.handle.get(), file, &size, bytes, 0)
                        : CryptCATAdminCalcHashFromFileHandle(file, &size, bytes, 0);
  };
  DWORD size = 0;
  if (calculate(size, nullptr) == FALSE) {
    const DWORD error = GetLastError();
    if (error != ERROR_INSUFFICIENT_BUFFER) return Bytes::Failure(error);
  }
  if (size == 0) return Bytes::Failure(ERROR_INVALID_DATA);
  std::vector<std::byte> hash(size);
  if (calculate(size, reinterpret_cast<BYTE*>(hash.data())) == FALSE) {
    return Bytes::Failure(GetLastError());
  }
  hash.resize(std::min<std::size_t>(hash.size(), size));
  return hash;
}

std::wstring MemberTag(const std::vector<std::byte>& hash) {
  constexpr std::wstring_view digits = L"0123456789ABCDEF";
  std::wstring tag;
  tag.reserve(hash.size() * 2);
  for (const std::byte byte : hash) {
    tag += digits[std::to_integer<std::size_t>(byte) >> 4];
    tag += digits[std::to_integer<std::size_t>(byte) & 15];
  }
  return tag;
}

Result<std::wstring> CatalogOf(const CatalogAdmin& admin, std::vector<std::byte>& hash) {
  using Text = Result<std::wstring>;
  HCATINFO found =
      CryptCATAdminEnumCatalogFromHash(admin.handle.get(), reinterpret_cast<BYTE*>(hash.data()),
                                       static_cast<DWORD>(hash.size()), 0, nullptr);
  if (found == nullptr) return Text::Failure(GetLastError());
  CATALOG_INFO info{};
  info.cbStruct = sizeof info;
  const BOOL named = CryptCATCatalogInfoFromContext(found, &info, 0);
  const DWORD error = GetLastError();
  CryptCATAdminReleaseCatalogContext(admin.handle.get(), found, 0);
  if (named == FALSE) return Text::Failure(error);
  info.wszCatalogFile[std::size(info.wszCatalogFile) - 1] = L'\0';
  return std::wstring(info.wszCatalogFile);
}

}  // namespace Vx::Platform
