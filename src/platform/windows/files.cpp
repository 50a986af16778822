#include "platform/files.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <string_view>

#include <windows.h>

#include "platform/windows/capabilities.h"

namespace Vx::Platform {

namespace {

// What the system's directory search takes for a pattern; the last three are its DOS forms.
constexpr wchar_t kWildcards[] = L"*?<>\"";
// Switches path parsing off, and holds a question mark of its own.
constexpr std::wstring_view kVerbatimPrefix = L"\\\\?\\";

constexpr DWORD kReadStep = 1U << 30;

struct FindCloser {
  void operator()(HANDLE search) const noexcept { FindClose(search); }
};
using UniqueSearch = std::unique_ptr<void, FindCloser>;

bool HasWildcard(std::wstring_view path) {
  if (path.starts_with(kVerbatimPrefix)) path.remove_prefix(kVerbatimPrefix.size());
  return path.find_first_of(kWildcards) != std::wstring_view::npos;
}

class RealFiles final : public Files {
 public:
  Result<std::uint32_t> Attributes(const std::wstring& path) const override {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) {
      return Result<std::uint32_t>::Failure(GetLastError());
    }
    return static_cast<std::uint32_t>(attributes);
  }

  bool ExistsByExactName(const std::wstring& path) const override {
    if (path.empty() || HasWildcard(path)) return false;
    WIN32_FIND_DATAW found;
    const HANDLE raw = FindFirstFileW(path.c_str(), &found);
    if (raw == INVALID_HANDLE_VALUE) return false;
    const UniqueSearch search(raw);
    return true;
  }

  ErrorCode MakeFolder(const std::wstring& path) override {
    return CreateDirectoryW(path.c_str(), nullptr) != 0 ? 0 : GetLastError();
  }

  ErrorCode Touch(const std::wstring& path) override {
    const UniqueHandle file =
        AdoptFile(CreateFileW(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE,
                              nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    return file != nullptr ? 0 : GetLastError();
  }

  Result<std::vector<std::byte>> Read(const std::wstring& path,
                                      std::size_t maxBytes) const override {
    using Bytes = Result<std::vector<std::byte>>;
    // Writers of the same file are kept apart by its users; whoever only looks does not block them.
    const UniqueHandle file =
        AdoptFile(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                              nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (file == nullptr) return Bytes::Failure(GetLastError());
    LARGE_INTEGER size;
    if (GetFileSizeEx(file.get(), &size) == 0) return Bytes::Failure(GetLastError());
    if (static_cast<std::uint64_t>(size.QuadPart) > maxBytes) {
      return Bytes::Failure(ERROR_FILE_TOO_LARGE);
    }
    std::vector<std::byte> content(static_cast<std::size_t>(size.QuadPart));
    std::size_t filled = 0;
    while (filled < content.size()) {
      const auto wanted =
          static_cast<DWORD>(std::min<std::size_t>(content.size() - filled, kReadStep));
      DWORD got = 0;
      if (ReadFile(file.get(), content.data() + filled, wanted, &got, nullptr) == 0) {
        return Bytes::Failure(GetLastError());
      }
      if (got == 0) break;  // somebody cut the file meanwhile
      filled += got;
    }
    content.resize(filled);
    return content;
  }

  ErrorCode Overwrite(const std::wstring& path, std::span<const std::byte> content) override {
    if (content.size() > std::numeric_limits<DWORD>::max()) return ERROR_FILE_TOO_LARGE;
    const UniqueHandle file =
        AdoptFile(CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                              nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (file == nullptr) return GetLastError();
    if (content.empty()) return 0;
    const auto size = static_cast<DWORD>(content.size());
    DWORD written = 0;
    if (WriteFile(file.get(), content.data(), size, &written, nullptr) == 0) return GetLastError();
    return written == size ? 0 : ERROR_WRITE_FAULT;
  }

  ErrorCode MoveOver(const std::wstring& from, const std::wstring& to) override {
    return MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING) != 0 ? 0
                                                                                 : GetLastError();
  }

  ErrorCode Remove(const std::wstring& path) override {
    return ::DeleteFileW(path.c_str()) != 0 ? 0 : GetLastError();
  }

  Result<UniqueHandle> OpenReadLocked(const std::wstring& path) const override {
    UniqueHandle file = AdoptFile(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                              OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (file == nullptr) return Result<UniqueHandle>::Failure(GetLastError());
    return file;
  }
};

}  // namespace

Files& WindowsFiles() {
  static RealFiles files;
  return files;
}

}  // namespace Vx::Platform
