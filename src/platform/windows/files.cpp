#include "platform/files.h"

#include <algorithm>
#include <functional>
#include <limits>
#include <string_view>
#include <utility>

#include <windows.h>

#include <bcrypt.h>
#include <sddl.h>

#include "platform/windows/capabilities.h"
#include "platform/windows/file_handle.h"

namespace Vx::Platform {

namespace {

using Bytes = std::vector<std::byte>;

// Wildcards of the directory search. The last three are their DOS forms.
constexpr wchar_t kWildcards[] = L"*?<>\"";
// Turns off path parsing. Its question mark is not a wildcard.
constexpr std::wstring_view kVerbatimPrefix = L"\\\\?\\";

// Protected: nothing is inherited. S-1-3-4 is Owner Rights.
constexpr wchar_t kPrivateFolder[] = L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;FA;;;S-1-3-4)";

constexpr std::size_t kHashStep = std::size_t{64} * 1024;
constexpr std::size_t kSha256Bytes = 32;

using UniqueSearch = std::unique_ptr<void, decltype(&FindClose)>;

struct AlgorithmCloser {
  void operator()(void* algorithm) const noexcept { BCryptCloseAlgorithmProvider(algorithm, 0); }
};

bool HasWildcard(std::wstring_view path) {
  if (path.starts_with(kVerbatimPrefix)) path.remove_prefix(kVerbatimPrefix.size());
  return path.find_first_of(kWildcards) != std::wstring_view::npos;
}

// Converts an NTSTATUS of the digest functions. Callers distinguish only the out-of-memory error.
ErrorCode Win32Error(NTSTATUS status) {
  constexpr auto kNoMemory = static_cast<NTSTATUS>(0xC0000017);
  return status == kNoMemory ? ERROR_NOT_ENOUGH_MEMORY : ERROR_GEN_FAILURE;
}

ErrorCode HashContent(RawHandle file, BCRYPT_HASH_HANDLE hash) {
  std::vector<UCHAR> piece(kHashStep);
  for (;;) {
    DWORD got = 0;
    if (ReadFile(file, piece.data(), static_cast<DWORD>(piece.size()), &got, nullptr) == 0) {
      return GetLastError();
    }
    if (got == 0) return 0;
    const NTSTATUS status = BCryptHashData(hash, piece.data(), got, 0);
    if (status < 0) return Win32Error(status);
  }
}

// `call(buffer, size)` returns the length without the terminator, the required size, or zero.
template <typename Call>
Result<std::wstring> SizedText(Call call) {
  std::wstring text(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = call(text.data(), static_cast<DWORD>(text.size()));
    if (length == 0) return Failure(GetLastError());
    if (length < text.size()) {
      text.resize(length);
      return text;
    }
    text.resize(static_cast<std::size_t>(length) + 1);
  }
}

class RealFiles final : public Files {
 public:
  Result<std::uint32_t> Attributes(const std::wstring& path) const override {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) return Failure(GetLastError());
    return static_cast<std::uint32_t>(attributes);
  }

  bool ExistsByExactName(const std::wstring& path) const override {
    if (path.empty() || HasWildcard(path)) return false;
    WIN32_FIND_DATAW found;
    const HANDLE raw = FindFirstFileW(path.c_str(), &found);
    if (raw == INVALID_HANDLE_VALUE) return false;
    const UniqueSearch search(raw, &FindClose);
    return true;
  }

  ErrorCode MakeFolder(const std::wstring& path, NewFolder access) override {
    if (access == NewFolder::Inherits) {
      return CreateDirectoryW(path.c_str(), nullptr) != 0 ? 0 : GetLastError();
    }
    PSECURITY_DESCRIPTOR raw = nullptr;
    if (ConvertStringSecurityDescriptorToSecurityDescriptorW(kPrivateFolder, SDDL_REVISION_1, &raw,
                                                             nullptr) == FALSE) {
      return GetLastError();
    }
    const UniqueLocalMemory<void> descriptor(raw);
    SECURITY_ATTRIBUTES security{sizeof security, descriptor.get(), FALSE};
    return CreateDirectoryW(path.c_str(), &security) != 0 ? 0 : GetLastError();
  }

  ErrorCode Touch(const std::wstring& path) override {
    const UniqueHandle file =
        OpenDiskFile(path, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE,
                     FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, OPEN_ALWAYS);
    return file != nullptr ? 0 : GetLastError();
  }

  Result<Bytes> Read(const std::wstring& path, std::size_t maxBytes) const override {
    // Shares write access, because a reader must not block the file's writers, which serialize
    // among themselves.
    const UniqueHandle file = OpenDiskFile(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE);
    if (file == nullptr) return Failure(GetLastError());
    return ReadContent(file.get(), maxBytes);
  }

  ErrorCode Overwrite(const std::wstring& path, std::span<const std::byte> content) override {
    if (content.size() > std::numeric_limits<DWORD>::max()) return ERROR_FILE_TOO_LARGE;
    const UniqueHandle file = OpenDiskFile(path, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                           FILE_ATTRIBUTE_NORMAL, CREATE_ALWAYS);
    if (file == nullptr) return GetLastError();
    return content.empty() ? 0 : WriteContent(file.get(), content);
  }

  ErrorCode MoveOver(const std::wstring& from, const std::wstring& to) override {
    constexpr DWORD kFlags = MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH;
    return MoveFileExW(from.c_str(), to.c_str(), kFlags) != 0 ? 0 : GetLastError();
  }

  ErrorCode Remove(const std::wstring& path) override {
    return ::DeleteFileW(path.c_str()) != 0 ? 0 : GetLastError();
  }

  Result<UniqueHandle> OpenReadLocked(const std::wstring& path) const override {
    UniqueHandle file = OpenDiskFile(path, GENERIC_READ, FILE_SHARE_READ);
    if (file == nullptr) return Failure(GetLastError());
    return file;
  }

  Result<Bytes> Sha256(const std::wstring& path) const override {
    const UniqueHandle file =
        OpenDiskFile(path, GENERIC_READ, FILE_SHARE_READ, FILE_FLAG_SEQUENTIAL_SCAN);
    if (file == nullptr) return Failure(GetLastError());

    BCRYPT_ALG_HANDLE rawAlgorithm = nullptr;
    NTSTATUS status =
        BCryptOpenAlgorithmProvider(&rawAlgorithm, BCRYPT_SHA256_ALGORITHM, nullptr, 0);
    if (status < 0) return Failure(Win32Error(status));
    const std::unique_ptr<void, AlgorithmCloser> algorithm(rawAlgorithm);

    BCRYPT_HASH_HANDLE rawHash = nullptr;
    status = BCryptCreateHash(algorithm.get(), &rawHash, nullptr, 0, nullptr, 0, 0);
    if (status < 0) return Failure(Win32Error(status));
    const std::unique_ptr<void, decltype(&BCryptDestroyHash)> hash(rawHash, &BCryptDestroyHash);

    const ErrorCode error = HashContent(file.get(), hash.get());
    if (error != 0) return Failure(error);
    Bytes digest(kSha256Bytes);
    status = BCryptFinishHash(hash.get(), reinterpret_cast<UCHAR*>(digest.data()),
                              static_cast<ULONG>(digest.size()), 0);
    if (status < 0) return Failure(Win32Error(status));
    return digest;
  }

  Result<std::wstring> FullPath(const std::wstring& path) const override {
    return SizedText([&path](wchar_t* buffer, DWORD size) {
      return GetFullPathNameW(path.c_str(), size, buffer, nullptr);
    });
  }

  bool IsElsewhere(const std::wstring& path) const override {
    const UINT type = GetDriveTypeW((path.substr(0, 2) + L"\\").c_str());
    return type == DRIVE_REMOTE || type == DRIVE_NO_ROOT_DIR;
  }

  Result<std::wstring> FinalPath(const std::wstring& path) const override {
    const UniqueHandle file = OpenDiskFile(path, FILE_READ_ATTRIBUTES, kShareAll);
    if (!file) return Failure(GetLastError());
    return FinalPathOf(file.get());
  }

  Result<std::wstring> FinalPathOf(RawHandle file) const override {
    auto text = SizedText([file](wchar_t* buffer, DWORD size) {
      return GetFinalPathNameByHandleW(file, buffer, size, FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
    });
    if (text && text->starts_with(kVerbatimPrefix)) text->erase(0, kVerbatimPrefix.size());
    return text;
  }

  Result<FileIdentity> IdentityOf(RawHandle file) const override {
    BY_HANDLE_FILE_INFORMATION facts;
    if (GetFileInformationByHandle(file, &facts) == 0) return Failure(GetLastError());
    const auto joined = [](DWORD high, DWORD low) { return std::uint64_t{high} << 32U | low; };
    return FileIdentity{.volume = facts.dwVolumeSerialNumber,
                        .index = joined(facts.nFileIndexHigh, facts.nFileIndexLow),
                        .size = joined(facts.nFileSizeHigh, facts.nFileSizeLow),
                        .written = joined(facts.ftLastWriteTime.dwHighDateTime,
                                          facts.ftLastWriteTime.dwLowDateTime)};
  }

  Result<AccessList> FolderAccess(const std::wstring& folder) const override {
    // GetNamedSecurityInfo would let whatever is at the path impersonate this process.
    const UniqueHandle opened =
        OpenDiskFile(folder, READ_CONTROL, kShareAll, FILE_FLAG_BACKUP_SEMANTICS);
    return opened != nullptr ? AccessOf(opened.get()) : Failure(GetLastError());
  }

  Opened Open(const std::wstring& path, FileUse use) override { return OpenFileHandle(path, use); }

  Opened Create(const std::wstring& path, const std::wstring& accessLike) override {
    return CreateFileHandle(path, accessLike);
  }

  Result<std::vector<std::wstring>> Siblings(const std::wstring& path) const override {
    std::vector<std::pair<std::uint64_t, std::wstring>> siblings;  // with the last-write time
    WIN32_FIND_DATAW found;
    const HANDLE raw = FindFirstFileW((path + L".*").c_str(), &found);
    if (raw == INVALID_HANDLE_VALUE) {
      const DWORD error = GetLastError();
      if (error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND) return Failure(error);
      return std::vector<std::wstring>();
    }
    const UniqueSearch search(raw, &FindClose);
    const std::size_t folderEnd = path.find_last_of(L"\\/") + 1;
    const std::wstring folder = path.substr(0, folderEnd);
    const std::wstring prefix = path.substr(folderEnd) + L".";
    do {
      // The pattern also matches `path` itself and short names.
      const std::wstring name = found.cFileName;
      if (!name.starts_with(prefix)) continue;
      const FILETIME& time = found.ftLastWriteTime;
      siblings.emplace_back(std::uint64_t{time.dwHighDateTime} << 32U | time.dwLowDateTime,
                            folder + name);
    } while (FindNextFileW(search.get(), &found) != 0);
    if (const DWORD end = GetLastError(); end != ERROR_NO_MORE_FILES) return Failure(end);
    std::ranges::sort(siblings, std::greater());
    std::vector<std::wstring> names;
    names.reserve(siblings.size());
    for (auto& [time, name] : siblings) names.push_back(std::move(name));
    return names;
  }
};

}  // namespace

Files& WindowsFiles() {
  static RealFiles files;
  return files;
}

}  // namespace Vx::Platform
