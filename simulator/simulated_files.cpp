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

Platform::Files& RealFiles() {
  return *Platform::WindowsMachine().files;
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

Platform::ErrorCode SimulatedFiles::MakeFolder(const std::wstring& path,
                                               Platform::NewFolder access) {
  return RealFiles().MakeFolder(path, access);
}

Platform::ErrorCode SimulatedFiles::Touch(const std::wstring& path) {
  return Holds(path) ? 0 : RealFiles().Touch(path);
}

Result<std::vector<std::byte>> SimulatedFiles::Read(const std::wstring& path,
                                                    std::size_t maxBytes) const {
  const auto content = Content(path);
  if (!content) return RealFiles().Read(path, maxBytes);
  if (content->size() > maxBytes) return Platform::Failure(kFileTooLarge);
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
  const bool ours = Holds(path);
  auto opened = ours ? Platform::WindowsMachine().kernelObjects->MakeManualEvent(
                           {})  // any handle that can be closed
                     : RealFiles().OpenReadLocked(path);
  const std::lock_guard guard(mutex);
  if (opened && ours) {
    locked[opened->get()] = path;
  } else if (opened) {
    locked.erase(opened->get());  // the system has reused a closed handle's value
  }
  return opened;
}

Result<std::vector<std::byte>> SimulatedFiles::Sha256(const std::wstring& path) const {
  return RealFiles().Sha256(path);
}

Result<std::wstring> SimulatedFiles::FullPath(const std::wstring& path) const {
  return RealFiles().FullPath(path);
}

Result<std::wstring> SimulatedFiles::FinalPath(const std::wstring& path) const {
  if (Holds(path)) return path;
  return RealFiles().FinalPath(path);
}

Result<std::wstring> SimulatedFiles::FinalPathOf(Platform::RawHandle file) const {
  {
    const std::lock_guard guard(mutex);
    const auto found = locked.find(file);
    if (found != locked.end()) return found->second;
  }
  return RealFiles().FinalPathOf(file);
}

Result<Platform::FileIdentity> SimulatedFiles::IdentityOf(Platform::RawHandle file) const {
  const auto path = FinalPathOf(file);
  const auto content = path ? Content(*path) : std::nullopt;
  if (content) return Platform::FileIdentity{.size = content->size()};
  return RealFiles().IdentityOf(file);
}

bool SimulatedFiles::IsElsewhere(const std::wstring& path) const {
  return !Holds(path) && RealFiles().IsElsewhere(path);
}

Result<Platform::AccessList> SimulatedFiles::FolderAccess(const std::wstring& folder) const {
  return RealFiles().FolderAccess(folder);
}

Platform::Files::Opened SimulatedFiles::Open(const std::wstring& path, Platform::FileUse use) {
  return RealFiles().Open(path, use);
}

Platform::Files::Opened SimulatedFiles::Create(const std::wstring& path,
                                               const std::wstring& accessLike) {
  return RealFiles().Create(path, accessLike);
}

Result<std::vector<std::wstring>> SimulatedFiles::Siblings(const std::wstring& path) const {
  return RealFiles().Siblings(path);
}

}  // namespace Vx::Simulator
