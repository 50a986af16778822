#include "platform/windows/file_handle.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>
#include <utility>

#include <aclapi.h>
#include <sddl.h>

namespace Vx::Platform {

namespace {

using Opened = Result<std::unique_ptr<FileHandle>>;

constexpr BYTE kGrants[] = {ACCESS_ALLOWED_ACE_TYPE, ACCESS_ALLOWED_OBJECT_ACE_TYPE,
                            ACCESS_ALLOWED_CALLBACK_ACE_TYPE,
                            ACCESS_ALLOWED_CALLBACK_OBJECT_ACE_TYPE};
constexpr BYTE kDenials[] = {ACCESS_DENIED_ACE_TYPE, ACCESS_DENIED_OBJECT_ACE_TYPE,
                             ACCESS_DENIED_CALLBACK_ACE_TYPE,
                             ACCESS_DENIED_CALLBACK_OBJECT_ACE_TYPE};
constexpr wchar_t kUnknownEntry[] = L"an entry of another kind";

constexpr DWORD kReadStep = 1U << 30;

bool IsProcessUser(PSID sid) {
  const auto token = ProcessToken();
  TokenUserBuffer buffer{};
  const PSID user = token ? UserOf(token->get(), buffer) : nullptr;
  return user != nullptr && EqualSid(sid, user) != FALSE;
}

// The offset for a read or write of a file that is opened for synchronous access.
OVERLAPPED At(std::size_t offset) {
  OVERLAPPED place{};
  place.Offset = static_cast<DWORD>(offset);
  place.OffsetHigh = static_cast<DWORD>(std::uint64_t{offset} >> 32U);
  return place;
}

class RealFileHandle final : public FileHandle {
 public:
  explicit RealFileHandle(UniqueHandle opened) : file(std::move(opened)) {}

  Result<FileFacts> Facts() const override {
    // Cheaper than GetFileInformationByHandle, which also queries the volume.
    FILE_STANDARD_INFO standard;
    FILE_BASIC_INFO basic;
    if (!Query(FileStandardInfo, standard)) return Failure(GetLastError());
    if (!Query(FileBasicInfo, basic)) return Failure(GetLastError());
    return FileFacts{
        .size = static_cast<std::uint64_t>(standard.EndOfFile.QuadPart),
        .attributes = basic.FileAttributes,
        .names = standard.NumberOfLinks,
        .created = static_cast<std::uint64_t>(basic.CreationTime.QuadPart),
        .written = static_cast<std::uint64_t>(basic.LastWriteTime.QuadPart),
    };
  }

  Result<bool> HasTrustedOwner() const override {
    PSID owner = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    const DWORD error = GetSecurityInfo(file.get(), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION,
                                        &owner, nullptr, nullptr, nullptr, &descriptor);
    if (error != ERROR_SUCCESS) return Failure(error);
    const UniqueLocalMemory<void> memory(descriptor);
    if (owner == nullptr) return false;
    return IsWellKnownSid(owner, WinLocalSystemSid) != 0 ||
           IsWellKnownSid(owner, WinBuiltinAdministratorsSid) != 0 || IsProcessUser(owner);
  }

  Result<std::vector<std::byte>> Content(std::size_t maxBytes) const override {
    return ReadContent(file.get(), maxBytes);
  }

  ErrorCode Write(std::span<const std::byte> content) override {
    return WriteContent(file.get(), content);
  }

  ErrorCode SetSize(std::uint64_t size) override {
    FILE_END_OF_FILE_INFO end;
    end.EndOfFile.QuadPart = static_cast<LONGLONG>(size);
    return Set(FileEndOfFileInfo, &end, sizeof end);
  }

  ErrorCode Flush() override { return FlushFileBuffers(file.get()) != 0 ? 0 : GetLastError(); }

  ErrorCode MoveOver(const std::wstring& path) override { return RenameTo(file.get(), path); }

  ErrorCode Remove() override {
    FILE_DISPOSITION_INFO disposition{TRUE};
    return Set(FileDispositionInfo, &disposition, sizeof disposition);
  }

 private:
  template <typename Information>
  bool Query(FILE_INFO_BY_HANDLE_CLASS what, Information& information) const {
    return GetFileInformationByHandleEx(file.get(), what, &information, sizeof information) != 0;
  }

  ErrorCode Set(FILE_INFO_BY_HANDLE_CLASS what, void* information, std::size_t size) {
    return SetFileInformationByHandle(file.get(), what, information, static_cast<DWORD>(size)) != 0
               ? 0
               : GetLastError();
  }

  UniqueHandle file;
};

struct Opening {
  DWORD access;
  DWORD share;
};

// In the order of FileUse.
constexpr Opening kOpenings[] = {
    {READ_CONTROL | FILE_READ_ATTRIBUTES, kShareAll},                    // Inspect
    {GENERIC_READ, kShareAll},                                           // Read
    {GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE},  // Change
    {GENERIC_READ | DELETE, FILE_SHARE_READ},                            // Remove
    {GENERIC_READ | GENERIC_WRITE | DELETE, FILE_SHARE_READ},            // Replace
};

Opened OpenWith(const std::wstring& path, FileUse use, SECURITY_ATTRIBUTES* security,
                DWORD disposition) {
  const Opening& opening = kOpenings[static_cast<std::size_t>(use)];
  UniqueHandle file =
      OpenDiskFile(path, opening.access, opening.share,
                   FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, disposition, security);
  if (file == nullptr) return Failure(GetLastError());
  std::unique_ptr<FileHandle> opened = std::make_unique<RealFileHandle>(std::move(file));
  return opened;
}

}  // namespace

std::wstring SidText(PSID sid) {
  wchar_t* raw = nullptr;
  if (sid == nullptr || ConvertSidToStringSidW(sid, &raw) == FALSE) return {};
  const UniqueLocalMemory<wchar_t> text(raw);
  return text.get();
}

PSID UserOf(HANDLE token, TokenUserBuffer& buffer) {
  DWORD size = 0;
  if (GetTokenInformation(token, TokenUser, buffer.bytes, sizeof buffer.bytes, &size) == FALSE) {
    return nullptr;
  }
  return reinterpret_cast<const TOKEN_USER*>(buffer.bytes)->User.Sid;
}

Result<UniqueHandle> ProcessToken() {
  HANDLE raw = nullptr;
  if (OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &raw) == FALSE) {
    return Failure(GetLastError());
  }
  return UniqueHandle(raw);
}

Result<std::vector<std::byte>> ReadContent(HANDLE file, std::size_t maxBytes) {
  LARGE_INTEGER size;
  if (GetFileSizeEx(file, &size) == 0) return Failure(GetLastError());
  if (static_cast<std::uint64_t>(size.QuadPart) > maxBytes) return Failure(ERROR_FILE_TOO_LARGE);
  std::vector<std::byte> content(static_cast<std::size_t>(size.QuadPart));
  std::size_t filled = 0;
  while (filled < content.size()) {
    const auto wanted =
        static_cast<DWORD>(std::min<std::size_t>(content.size() - filled, kReadStep));
    DWORD got = 0;
    OVERLAPPED place = At(filled);
    if (ReadFile(file, content.data() + filled, wanted, &got, &place) == 0) {
      if (GetLastError() != ERROR_HANDLE_EOF) return Failure(GetLastError());
    }
    if (got == 0) break;  // another process has truncated the file
    filled += got;
  }
  content.resize(filled);
  return content;
}

ErrorCode WriteContent(HANDLE file, std::span<const std::byte> content) {
  if (content.size() > std::numeric_limits<DWORD>::max()) return ERROR_FILE_TOO_LARGE;
  const auto size = static_cast<DWORD>(content.size());
  DWORD written = 0;
  OVERLAPPED place = At(0);
  if (WriteFile(file, content.data(), size, &written, &place) == 0) return GetLastError();
  return written == size ? 0 : ERROR_WRITE_FAULT;
}

UniqueHandle OpenDiskFile(const std::wstring& path, DWORD access, DWORD share, DWORD flags,
                          DWORD disposition, SECURITY_ATTRIBUTES* security) {
  UniqueHandle file =
      AdoptFile(CreateFileW(path.c_str(), access, share, security, disposition,
                            flags | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
  if (file == nullptr || GetFileType(file.get()) == FILE_TYPE_DISK) return file;
  file.reset();
  SetLastError(ERROR_BAD_FILE_TYPE);
  return file;
}

ErrorCode RenameTo(RawHandle file, const std::wstring& path) {
  const std::size_t nameBytes = path.size() * sizeof(wchar_t);
  // The structure has room for the terminator.
  std::vector<std::byte> memory(sizeof(FILE_RENAME_INFO) + nameBytes);
  auto* const rename = new (memory.data()) FILE_RENAME_INFO{};
  rename->ReplaceIfExists = TRUE;
  rename->FileNameLength = static_cast<DWORD>(nameBytes);
  std::memcpy(rename->FileName, path.c_str(), nameBytes);
  const auto size = static_cast<DWORD>(memory.size());
  return SetFileInformationByHandle(file, FileRenameInfo, rename, size) != 0 ? 0 : GetLastError();
}

Result<AccessList> AccessOf(RawHandle file) {
  PSID owner = nullptr;
  PSID group = nullptr;
  PACL list = nullptr;
  PSECURITY_DESCRIPTOR raw = nullptr;
  const DWORD error = GetSecurityInfo(
      file, SE_FILE_OBJECT,
      OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, &owner,
      &group, &list, nullptr, &raw);
  const UniqueLocalMemory<void> descriptor(raw);
  if (error != ERROR_SUCCESS) return Failure(error);
  if (list == nullptr) return Failure(ERROR_NO_SECURITY_ON_OBJECT);
  AccessList access{.owner = SidText(owner), .entries = {}};
  for (DWORD i = 0; i < list->AceCount; ++i) {
    void* ace = nullptr;
    AccessEntry entry{.allowed = true, .mask = ~0U, .sid = kUnknownEntry};
    if (GetAce(list, i, &ace) != FALSE) {
      const BYTE type = static_cast<const ACE_HEADER*>(ace)->AceType;
      auto* allowed = static_cast<ACCESS_ALLOWED_ACE*>(ace);
      entry.allowed = std::ranges::find(kDenials, type) == std::end(kDenials);
      // The other allow types start with the same members, but apply only to certain objects or
      // conditionally: https://learn.microsoft.com/windows/win32/api/winnt/ns-winnt-ace_header
      if (std::ranges::find(kGrants, type) != std::end(kGrants)) entry.mask = allowed->Mask;
      if (type == ACCESS_ALLOWED_ACE_TYPE) entry.sid = SidText(&allowed->SidStart);
    }
    access.entries.push_back(std::move(entry));
  }
  return access;
}

Opened OpenFileHandle(const std::wstring& path, FileUse use) {
  return OpenWith(path, use, nullptr, OPEN_EXISTING);
}

Opened CreateFileHandle(const std::wstring& path, const std::wstring& accessLike) {
  PSECURITY_DESCRIPTOR raw = nullptr;
  const UniqueHandle like = OpenDiskFile(accessLike, READ_CONTROL, kShareAll);
  const DWORD error = like == nullptr
                          ? GetLastError()
                          : GetSecurityInfo(like.get(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION,
                                            nullptr, nullptr, nullptr, nullptr, &raw);
  if (error != ERROR_SUCCESS && error != ERROR_FILE_NOT_FOUND) return Failure(error);
  const UniqueLocalMemory<void> descriptor(raw);  // null: inherits from the folder
  SECURITY_ATTRIBUTES security{sizeof security, descriptor.get(), FALSE};
  return OpenWith(path, FileUse::Replace, &security, CREATE_NEW);
}

}  // namespace Vx::Platform
