#include "platform/trust_provider.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <string_view>
#include <utility>

#include <windows.h>

#include "platform/unique_handle.h"
#include "platform/windows/capabilities.h"
#include "platform/windows/file_handle.h"
#include "platform/windows/signature_functions.h"
#include "platform/windows/signature_verification.h"

namespace Vx::Platform {

namespace {

constexpr wchar_t kCatalogHash[] = L"SHA256";

struct CatalogAdminCloser {
  void operator()(void* admin) const noexcept { release(admin, 0); }

  decltype(CryptCATAdminReleaseContext)* release = nullptr;
};

using AdminHandle = std::unique_ptr<void, CatalogAdminCloser>;

// A context for searching the signed catalogs of Windows and of drivers by hash.
struct CatalogAdmin {
  AdminHandle handle;
  bool sha256 = false;  // otherwise SHA-1, as in the older calls
};

// Falls back to the older call if the newer one is missing or, as under Wine, not implemented.
Result<CatalogAdmin> OpenCatalogs(const SignatureFunctions& functions) {
  const GUID subsystem = DRIVER_ACTION_VERIFY;
  HCATADMIN admin = nullptr;
  const auto owned = [&](bool sha256) {
    return CatalogAdmin{.handle = AdminHandle(admin, {functions.releaseContext}), .sha256 = sha256};
  };
  if (functions.acquireContext2 != nullptr) {
    if (functions.acquireContext2(&admin, &subsystem, kCatalogHash, nullptr, 0) != FALSE) {
      return owned(true);
    }
    const DWORD error = GetLastError();
    if (error != ERROR_CALL_NOT_IMPLEMENTED) return Failure(error);
  }
  if (functions.acquireContext(&admin, &subsystem, 0) == FALSE) return Failure(GetLastError());
  return owned(false);
}

// Returns the hash by which `admin` looks up the open file `file`. Reads the whole file.
Result<std::vector<std::byte>> CatalogHashOf(const SignatureFunctions& functions,
                                             const CatalogAdmin& admin, HANDLE file) {
  // A SHA-256 context finds nothing by the older hash.
  if (admin.sha256 && functions.calcHash2 == nullptr) return Failure(ERROR_CALL_NOT_IMPLEMENTED);
  const auto calculate = [&](DWORD& size, BYTE* bytes) {
    return admin.sha256 ? functions.calcHash2(admin.handle.get(), file, &size, bytes, 0)
                        : functions.calcHash(file, &size, bytes, 0);
  };
  DWORD size = 0;
  if (calculate(size, nullptr) == FALSE) {
    const DWORD error = GetLastError();
    if (error != ERROR_INSUFFICIENT_BUFFER) return Failure(error);
  }
  if (size == 0) return Failure(ERROR_INVALID_DATA);
  std::vector<std::byte> hash(size);
  if (calculate(size, reinterpret_cast<BYTE*>(hash.data())) == FALSE) {
    return Failure(GetLastError());
  }
  hash.resize(std::min<std::size_t>(hash.size(), size));
  return hash;
}

// Returns a catalog member's name: its hash in upper-case hexadecimal digits.
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

Result<std::wstring> CatalogOf(const SignatureFunctions& functions, const CatalogAdmin& admin,
                               std::vector<std::byte>& hash) {
  HCATINFO found = functions.enumCatalog(admin.handle.get(), reinterpret_cast<BYTE*>(hash.data()),
                                         static_cast<DWORD>(hash.size()), 0, nullptr);
  if (found == nullptr) return Failure(GetLastError());
  CATALOG_INFO info{};
  info.cbStruct = sizeof info;
  const BOOL named = functions.catalogInfo(found, &info, 0);
  const DWORD error = GetLastError();
  functions.releaseCatalog(admin.handle.get(), found, 0);
  if (named == FALSE) return Failure(error);
  info.wszCatalogFile[std::size(info.wszCatalogFile) - 1] = L'\0';
  return std::wstring(info.wszCatalogFile);
}

// Opens a program for verification by handle. Verification by path would open the file again,
// and could let whatever is there by then impersonate this process.
UniqueHandle OpenProgram(const std::wstring& path, DWORD share) {
  return OpenDiskFile(path, GENERIC_READ, share);
}

constexpr DWORD kUnlessWritten = FILE_SHARE_READ | FILE_SHARE_DELETE;
constexpr DWORD kShareAll = kUnlessWritten | FILE_SHARE_WRITE;

// Returns the verdict for a file that cannot be opened, or if Windows lacks the functions.
SignatureVerdict Unverifiable(DWORD error) {
  return {.result = HRESULT_FROM_WIN32(error), .secondaryCount = 0, .signer = std::nullopt};
}

class WindowsTrust final : public TrustProvider {
 public:
  explicit WindowsTrust(DeferredLibrary& library) : wintrust(library) {}

  SignatureVerdict VerifyEmbedded(const std::wstring& path, std::uint32_t index) const override {
    const SignatureFunctions functions(wintrust);
    if (!functions.Complete()) return Unverifiable(GetLastError());
    const UniqueHandle file = OpenProgram(path, kUnlessWritten);
    if (!file) return Unverifiable(GetLastError());
    WINTRUST_FILE_INFO info{};
    info.cbStruct = sizeof info;
    info.pcwszFilePath = path.c_str();
    info.hFile = file.get();
    return VerifySignature(functions, WTD_CHOICE_FILE, &info, index);
  }

  std::optional<CatalogHit> FindCatalog(const std::wstring& path,
                                        CatalogFailure& failure) const override {
    const auto failed = [&failure](CatalogStep step, DWORD error) {
      failure = {.step = step, .error = error};
      return std::nullopt;
    };
    const SignatureFunctions functions(wintrust);
    if (!functions.Complete()) return failed(CatalogStep::AcquireContext, GetLastError());
    const auto admin = OpenCatalogs(functions);
    if (!admin) return failed(CatalogStep::AcquireContext, admin.Error());
    const UniqueHandle file = OpenProgram(path, kShareAll);
    if (!file) return failed(CatalogStep::OpenFile, GetLastError());
    auto hash = CatalogHashOf(functions, *admin, file.get());
    if (!hash) return failed(CatalogStep::Hash, hash.Error());
    auto catalog = CatalogOf(functions, *admin, *hash);
    if (!catalog) return failed(CatalogStep::FindCatalog, catalog.Error());
    return CatalogHit{.catalogPath = *std::move(catalog),
                      .memberTag = MemberTag(*hash),
                      .memberPath = path,
                      .hash = *std::move(hash)};
  }

  SignatureVerdict VerifyInCatalog(const CatalogHit& catalog, std::uint32_t index) const override {
    const SignatureFunctions functions(wintrust);
    if (!functions.Complete()) return Unverifiable(GetLastError());
    const UniqueHandle file = OpenProgram(catalog.memberPath, kShareAll);
    if (!file) return Unverifiable(GetLastError());
    // The verification needs the context to determine which hash the catalog uses.
    const auto admin = OpenCatalogs(functions);
    std::vector<std::byte> hash = catalog.hash;
    WINTRUST_CATALOG_INFO info{};
    info.cbStruct = sizeof info;
    info.pcwszCatalogFilePath = catalog.catalogPath.c_str();
    info.pcwszMemberTag = catalog.memberTag.c_str();
    info.pcwszMemberFilePath = catalog.memberPath.c_str();
    info.hMemberFile = file.get();
    info.pbCalculatedFileHash = reinterpret_cast<BYTE*>(hash.data());
    info.cbCalculatedFileHash = static_cast<DWORD>(hash.size());
    info.hCatAdmin = admin ? admin->handle.get() : nullptr;
    return VerifySignature(functions, WTD_CHOICE_CATALOG, &info, index);
  }

 private:
  DeferredLibrary& wintrust;
};

}  // namespace

std::unique_ptr<TrustProvider> MakeTrustProvider(DeferredLibrary& wintrust) {
  return std::make_unique<WindowsTrust>(wintrust);
}

TrustProvider& WindowsTrustProvider() {
  static DeferredLibrary wintrust(L"wintrust.dll");
  static WindowsTrust provider(wintrust);
  return provider;
}

}  // namespace Vx::Platform
