#include "simulator/simulated_files.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/kernel_objects.h"
#include "platform/machine.h"

namespace Vx::Simulator {

namespace {

using Platform::Result;

constexpr Platform::ErrorCode kAccessDenied = 5;    // ERROR_ACCESS_DENIED
constexpr Platform::ErrorCode kFileTooLarge = 223;  // ERROR_FILE_TOO_LARGE
constexpr std::uint32_t kPlainFile = 0x20;          // FILE_ATTRIBUTE_ARCHIVE
constexpr std::uint32_t kFullControl = 0x10000000;  // GENERIC_ALL
constexpr auto kNoSignature = static_cast<std::int32_t>(0x800B0100);
constexpr wchar_t kSigner[] = L"Simulated Signer";

Platform::Files& RealFiles() {
  return *Platform::WindowsMachine().files;
}

const Platform::TrustProvider& RealTrust() {
  return *Platform::WindowsMachine().trustProvider;
}

}  // namespace

void SimulatedFiles::Add(const std::wstring& path, const std::string& content) {
  std::vector<std::byte> bytes(content.size());
  std::transform(content.begin(), content.end(), bytes.begin(),
                 [](char unit) { return static_cast<std::byte>(unit); });
  const std::lock_guard guard(mutex);
  contents[path] = std::move(bytes);
}

std::optional<std::vector<std::byte>> SimulatedFiles::Content(const std::wstring& path) const {
  const std::lock_guard guard(mutex);
  const auto found = contents.find(path);
  if (found == contents.end()) return std::nullopt;
  return found->second;
}

bool SimulatedFiles::Holds(const std::wstring& path) const {
  return Content(path).has_value();
}

Result<std::uint32_t> SimulatedFiles::Attributes(const std::wstring& path) const {
  if (Holds(path)) return kPlainFile;
  return RealFiles().Attributes(path);
}

bool SimulatedFiles::ExistsByExactName(const std::wstring& path) const {
  return Holds(path) || RealFiles().ExistsByExactName(path);
}

Platform::ErrorCode SimulatedFiles::MakeFolder(const std::wstring& path) {
  return RealFiles().MakeFolder(path);
}

Platform::ErrorCode SimulatedFiles::Touch(const std::wstring& path) {
  return Holds(path) ? 0 : RealFiles().Touch(path);
}

Result<std::vector<std::byte>> SimulatedFiles::Read(const std::wstring& path,
                                                    std::size_t maxBytes) const {
  const auto content = Content(path);
  if (!content) return RealFiles().Read(path, maxBytes);
  if (content->size() > maxBytes) {
    return Result<std::vector<std::byte>>::Failure(kFileTooLarge);
  }
  return *content;
}

Platform::ErrorCode SimulatedFiles::Overwrite(const std::wstring& path,
                                              std::span<const std::byte> content) {
  {
    const std::lock_guard guard(mutex);
    const auto found = contents.find(path);
    if (found != contents.end()) {
      found->second.assign(content.begin(), content.end());
      return 0;
    }
  }
  return RealFiles().Overwrite(path, content);
}

Platform::ErrorCode SimulatedFiles::MoveOver(const std::wstring& from, const std::wstring& to) {
  if (Holds(from) || Holds(to)) return kAccessDenied;
  return RealFiles().MoveOver(from, to);
}

Platform::ErrorCode SimulatedFiles::Remove(const std::wstring& path) {
  {
    const std::lock_guard guard(mutex);
    if (contents.erase(path) != 0) return 0;
  }
  return RealFiles().Remove(path);
}

Result<Platform::UniqueHandle> SimulatedFiles::OpenReadLocked(const std::wstring& path) const {
  if (!Holds(path)) return RealFiles().OpenReadLocked(path);
  return Platform::WindowsMachine().kernelObjects->MakeManualEvent({});  // something to close
}

void SimulatedTrust::Sign(const std::wstring& path, std::vector<std::byte> publicKey) {
  const std::lock_guard guard(mutex);
  keys[path] = std::move(publicKey);
}

std::optional<std::vector<std::byte>> SimulatedTrust::KeyOf(const std::wstring& path) const {
  const std::lock_guard guard(mutex);
  const auto found = keys.find(path);
  if (found == keys.end()) return std::nullopt;
  return found->second;
}

Platform::SignatureVerdict SimulatedTrust::VerifyEmbedded(const std::wstring& path,
                                                          std::uint32_t index) const {
  auto key = KeyOf(path);
  if (!key) return RealTrust().VerifyEmbedded(path, index);
  if (index != 0) return {.result = kNoSignature, .secondaryCount = 0, .signer = {}};
  Platform::SignerNames names;
  names.commonName = kSigner;
  names.issuerCommonName = kSigner;
  return {.result = 0,
          .secondaryCount = 0,
          .signer = Platform::Signer{.publicKey = *std::move(key),
                                     .subject = std::wstring(L"CN=") + kSigner,
                                     .names = std::move(names)}};
}

std::optional<Platform::CatalogHit> SimulatedTrust::FindCatalog(
    const std::wstring& path, Platform::CatalogFailure& failure) const {
  if (!KeyOf(path)) return RealTrust().FindCatalog(path, failure);
  failure = {.step = Platform::CatalogStep::FindCatalog, .error = 2};  // ERROR_FILE_NOT_FOUND
  return std::nullopt;
}

Platform::SignatureVerdict SimulatedTrust::VerifyInCatalog(const Platform::CatalogHit& catalog,
                                                           std::uint32_t index) const {
  return RealTrust().VerifyInCatalog(catalog, index);
}

Result<std::wstring> SimulatedTrust::FullPath(const std::wstring& path) const {
  return RealTrust().FullPath(path);
}

Result<std::wstring> SimulatedTrust::FinalPath(const std::wstring& path) const {
  if (KeyOf(path)) return path;
  return RealTrust().FinalPath(path);
}

Result<std::vector<Platform::AccessEntry>> SimulatedTrust::FolderAccess(
    const std::wstring& folder) const {
  {
    const std::lock_guard guard(mutex);
    const auto below = [&folder](const auto& entry) {
      return entry.first.compare(0, folder.size(), folder) == 0;
    };
    if (std::none_of(keys.begin(), keys.end(), below)) return RealTrust().FolderAccess(folder);
  }
  return std::vector<Platform::AccessEntry>{{.allowed = true,
                                             .mask = kFullControl,
                                             .accountName = L"TrustedInstaller",
                                             .accountDomain = L"NT SERVICE"},
                                            {.allowed = true,
                                             .mask = kFullControl,
                                             .accountName = L"SYSTEM",
                                             .accountDomain = L"NT AUTHORITY"}};
}

}  // namespace Vx::Simulator
