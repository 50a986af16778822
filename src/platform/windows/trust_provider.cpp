#include "platform/trust_provider.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <utility>

#include <windows.h>
// The trust header needs the types of this one.
#include <wincrypt.h>

#include <aclapi.h>
#include <wintrust.h>

#include "platform/unique_handle.h"
#include "platform/windows/capabilities.h"
#include "platform/windows/local_memory.h"
#include "platform/windows/signature_catalogs.h"
#include "platform/windows/signature_verification.h"

namespace Vx::Platform {

namespace {

constexpr wchar_t kExtendedPrefix[] = L"\\\\?\\";

void LookUpAccount(PSID sid, AccessEntry& entry) {
  DWORD nameLength = 0;
  DWORD domainLength = 0;
  SID_NAME_USE use{};
  LookupAccountSidW(nullptr, sid, nullptr, &nameLength, nullptr, &domainLength, &use);
  if (nameLength == 0) return;
  std::wstring name(nameLength, L'\0');
  std::wstring domain(std::max<DWORD>(domainLength, 1), L'\0');
  if (LookupAccountSidW(nullptr, sid, name.data(), &nameLength, domain.data(), &domainLength,
                        &use) == FALSE) {
    return;
  }
  // On success both lengths leave out the terminator.
  name.resize(nameLength);
  domain.resize(domainLength);
  entry.accountName = std::move(name);
  entry.accountDomain = std::move(domain);
}

// `call(buffer, size)` answers the length without the terminator, or the size it needs, or zero.
template <typename Call>
Result<std::wstring> SizedText(Call call) {
  std::wstring text(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = call(text.data(), static_cast<DWORD>(text.size()));
    if (length == 0) return Result<std::wstring>::Failure(GetLastError());
    if (length < text.size()) {
      text.resize(length);
      return text;
    }
    text.resize(static_cast<std::size_t>(length) + 1);
  }
}

UniqueHandle OpenShared(const std::wstring& path, DWORD access) {
  return AdoptFile(CreateFileW(path.c_str(), access,
                               FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                               OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
}

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
    const UniqueHandle file = OpenShared(path, GENERIC_READ);
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

  Result<std::wstring> FullPath(const std::wstring& path) const override {
    return SizedText([&path](wchar_t* buffer, DWORD size) {
      return GetFullPathNameW(path.c_str(), size, buffer, nullptr);
    });
  }

  Result<std::wstring> FinalPath(const std::wstring& path) const override {
    const UniqueHandle file = OpenShared(path, FILE_READ_ATTRIBUTES);
    if (!file) return Result<std::wstring>::Failure(GetLastError());
    return FinalPathOf(file.get());
  }

  Result<std::wstring> FinalPathOf(RawHandle file) const override {
    auto text = SizedText([file](wchar_t* buffer, DWORD size) {
      return GetFinalPathNameByHandleW(file, buffer, size, FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
    });
    if (text && text->starts_with(kExtendedPrefix)) text->erase(0, std::size(kExtendedPrefix) - 1);
    return text;
  }

  Result<std::vector<AccessEntry>> FolderAccess(const std::wstring& folder) const override {
    using Entries = Result<std::vector<AccessEntry>>;
    PSID owner = nullptr;
    PSID group = nullptr;
    PACL list = nullptr;
    PSECURITY_DESCRIPTOR raw = nullptr;
    std::wstring name(folder);
    const DWORD error = GetNamedSecurityInfoW(
        name.data(), SE_FILE_OBJECT,
        OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, &owner,
        &group, &list, nullptr, &raw);
    const UniqueLocalMemory<void> descriptor(raw);
    if (error != ERROR_SUCCESS) return Entries::Failure(error);
    if (list == nullptr) return Entries::Failure(ERROR_NO_SECURITY_ON_OBJECT);
    std::vector<AccessEntry> entries;
    for (DWORD i = 0; i < list->AceCount; ++i) {
      void* ace = nullptr;
      if (GetAce(list, i, &ace) == FALSE) continue;
      const auto* header = static_cast<const ACE_HEADER*>(ace);
      AccessEntry entry;
      entry.allowed = header->AceType == ACCESS_ALLOWED_ACE_TYPE;
      if (entry.allowed) {
        auto* allowed = static_cast<ACCESS_ALLOWED_ACE*>(ace);
        entry.mask = allowed->Mask;
        LookUpAccount(&allowed->SidStart, entry);
      }
      entries.push_back(std::move(entry));
    }
    return entries;
  }
};

}  // namespace

TrustProvider& WindowsTrustProvider() {
  static WindowsTrust provider;
  return provider;
}

}  // namespace Vx::Platform
