#include "servicehost/log_folder.h"

#include <algorithm>
#include <cwchar>
#include <exception>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include <windows.h>

#include "hosting/text.h"

namespace Vx::Host {

namespace {

constexpr wchar_t kPrefix[] = L"vxhost-";
constexpr std::size_t kPrefixLength = 7;
constexpr std::size_t kDayLength = 8;
constexpr std::size_t kNameLength = kPrefixLength + kDayLength + 9;  // "-NNNN.log"
constexpr unsigned kLastNumber = 9999;

std::wstring DayOf(std::uint64_t time) {
  std::wstring day = DateTimeText(time).substr(0, kDayLength + 2);
  std::erase(day, L'-');
  return day;
}

std::wstring NameOf(const std::wstring& day, unsigned number) {
  wchar_t text[16];
  _snwprintf(text, std::size(text) - 1, L"-%04u.log", number);
  text[std::size(text) - 1] = L'\0';
  return kPrefix + day + text;
}

struct FindCloser {
  void operator()(void* find) const noexcept { FindClose(find); }
};

bool IsLogName(const std::wstring& name) {
  const auto digits = [&name](std::size_t from, std::size_t count) {
    return std::all_of(name.begin() + static_cast<std::ptrdiff_t>(from),
                       name.begin() + static_cast<std::ptrdiff_t>(from + count),
                       [](wchar_t c) { return c >= L'0' && c <= L'9'; });
  };
  return name.size() == kNameLength && digits(kPrefixLength, kDayLength) &&
         digits(kPrefixLength + kDayLength + 1, 4);
}

}  // namespace

std::vector<std::wstring> LogFileNames(const std::wstring& folder) {
  std::vector<std::wstring> names;
  WIN32_FIND_DATAW found;
  const HANDLE first = FindFirstFileW((folder + L"\\" + kPrefix + L"*.log").c_str(), &found);
  if (first == INVALID_HANDLE_VALUE) return names;
  const std::unique_ptr<void, FindCloser> find(first);
  do {
    if (IsLogName(found.cFileName)) names.emplace_back(found.cFileName);
  } while (FindNextFileW(first, &found) != FALSE);
  std::sort(names.begin(), names.end());
  return names;
}

LogFolder::LogFolder(std::wstring where, LogLimits bounds)
    : folder(std::move(where)), limits(bounds) {}

bool LogFolder::Write(const LogEntry& entry) noexcept {
  try {
    const std::string line = JsonLineOf(entry);
    const std::wstring day = DayOf(entry.time);
    if (file == nullptr || day != fileDay || size + line.size() > limits.fileBytes) {
      Open(day, line.size());
    }
    DWORD written = 0;
    if (WriteFile(file.get(), line.data(), static_cast<DWORD>(line.size()), &written, nullptr) ==
            FALSE ||
        written != line.size()) {
      file.reset();  // the next record tries anew, behind what was written
      return false;
    }
    size += written;
    return true;
  } catch (const std::exception&) {
    file.reset();
    return false;
  }
}

// Continues the day's last file if it has room for a line.
void LogFolder::Open(const std::wstring& day, std::size_t lineSize) {
  file.reset();
  unsigned number = 1;
  for (const std::wstring& name : LogFileNames(folder)) {
    if (name.compare(kPrefixLength, kDayLength, day) == 0) {
      number = static_cast<unsigned>(
          std::wcstoul(name.c_str() + kPrefixLength + kDayLength + 1, nullptr, 10));
    }
  }
  for (; number <= kLastNumber; ++number) {
    const std::wstring path = folder + L"\\" + NameOf(day, number);
    Platform::UniqueHandle opened = Platform::AdoptFile(
        CreateFileW(path.c_str(), GENERIC_READ | FILE_APPEND_DATA, FILE_SHARE_READ, nullptr,
                    OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    // Another service writes to it, or a program that may delete it has it open.
    if (opened == nullptr && GetLastError() == ERROR_SHARING_VIOLATION) continue;
    if (opened == nullptr) {
      throw std::system_error(static_cast<int>(GetLastError()), std::system_category());
    }
    LARGE_INTEGER length{};
    GetFileSizeEx(opened.get(), &length);
    size = static_cast<std::uint64_t>(length.QuadPart);
    if (size != 0 && size + lineSize > limits.fileBytes) continue;
    file = std::move(opened);
    fileDay = day;
    if (size != 0) {
      LARGE_INTEGER last{};
      last.QuadPart = length.QuadPart - 1;
      char end = '\n';
      DWORD count = 0;
      SetFilePointerEx(file.get(), last, nullptr, FILE_BEGIN);
      ReadFile(file.get(), &end, 1, &count, nullptr);
      if (end != '\n' && WriteFile(file.get(), "\n", 1, &count, nullptr) != FALSE) ++size;
    }
    DeleteOldest();
    return;
  }
  throw std::system_error(ERROR_NO_MORE_FILES, std::system_category());
}

void LogFolder::DeleteOldest() const {
  const std::vector<std::wstring> names = LogFileNames(folder);
  for (std::size_t i = 0; i + limits.files < names.size(); ++i) {
    // A file that a reader holds without sharing stays until the next one begins.
    static_cast<void>(DeleteFileW((folder + L"\\" + names[i]).c_str()));
  }
}

}  // namespace Vx::Host
