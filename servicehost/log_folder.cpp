#include "servicehost/log_folder.h"

#include <algorithm>
#include <cwchar>
#include <memory>
#include <utility>

#include <windows.h>

#include "hosting/text.h"
#include "platform/windows/file_handle.h"

namespace Vx::Hosting::ServiceHost {

namespace {

constexpr std::wstring_view kAgeForm = L"-00000000-0000.log";  // 0 stands for any digit
constexpr std::size_t kDayLength = 8;
constexpr std::size_t kNumberLength = 4;
constexpr unsigned kLastNumber = 9999;

std::wstring DayOf(std::uint64_t time) {
  std::wstring day = DateTimeText(time).substr(0, kDayLength + 2);
  std::erase(day, L'-');
  return day;
}

std::wstring AgeOf(const std::wstring& day, unsigned number) {
  const std::wstring digits = std::to_wstring(number);
  return L"-" + day + L"-" + std::wstring(kNumberLength - digits.size(), L'0') + digits + L".log";
}

struct LogFile {
  std::wstring name;
  std::uint64_t written = 0;  // last write, a FILETIME
};

bool IsOf(std::wstring_view service, const std::wstring& name) {
  const std::size_t length = name.size() - kAgeForm.size();
  return service.empty() ||
         (length == service.size() && _wcsnicmp(name.c_str(), service.data(), service.size()) == 0);
}

// Returns the log files, oldest first.
std::vector<LogFile> LogFiles(const std::wstring& folder, std::wstring_view service) {
  std::vector<LogFile> files;
  WIN32_FIND_DATAW found;
  const HANDLE first = FindFirstFileW((folder + L"\\*.log").c_str(), &found);
  if (first == INVALID_HANDLE_VALUE) return files;
  const std::unique_ptr<void, decltype(&FindClose)> find(first, &FindClose);
  do {
    const std::wstring name = found.cFileName;
    const FILETIME& time = found.ftLastWriteTime;
    if (LogAge(name).empty() || !IsOf(service, name)) continue;
    files.push_back({name, std::uint64_t{time.dwHighDateTime} << 32U | time.dwLowDateTime});
  } while (FindNextFileW(first, &found) != FALSE);
  std::ranges::sort(files, {},
                    [](const LogFile& file) { return std::pair(LogAge(file.name), file.name); });
  return files;
}

[[noreturn]] void ThrowError(const std::wstring& folder, DWORD error) {
  throw WindowsError("cannot write to " + Utf8(folder), error);
}

}  // namespace

std::wstring_view LogAge(std::wstring_view name) {
  if (name.size() <= kAgeForm.size()) return {};
  name.remove_prefix(name.size() - kAgeForm.size());
  const bool fits = std::ranges::equal(name, kAgeForm, [](wchar_t unit, wchar_t form) {
    return form == L'0' ? unit >= L'0' && unit <= L'9' : unit == form;
  });
  return fits ? name : std::wstring_view();
}

std::vector<std::wstring> LogFileNames(const std::wstring& folder, std::wstring_view service) {
  std::vector<std::wstring> names;
  for (LogFile& file : LogFiles(folder, service)) names.push_back(std::move(file.name));
  return names;
}

LogFolder::LogFolder(std::wstring where, std::wstring name, LogLimits bounds, Maker make)
    : folder(std::move(where)),
      service(std::move(name)),
      limits(bounds),
      makeFolder(std::move(make)) {}

void LogFolder::Write(const LogEntry& entry) {
  const std::string line = JsonLineOf(entry);
  const std::wstring day = DayOf(entry.time);
  if (file == nullptr || day != fileDay || size + line.size() > limits.fileBytes) {
    Open(day, line.size());
  }
  DWORD written = 0;
  const BOOL done =
      WriteFile(file.get(), line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
  const DWORD error = done != FALSE ? ERROR_DISK_FULL : GetLastError();
  if (done == FALSE || written != line.size()) {
    file.reset();  // the next entry reopens it and appends after this partial line
    ThrowError(folder, error);
  }
  size += written;
}

// Appends to the day's last file if the line fits. Otherwise, starts a new file.
void LogFolder::Open(const std::wstring& day, std::size_t lineSize) {
  file.reset();
  if (makeFolder && GetFileAttributesW(folder.c_str()) == INVALID_FILE_ATTRIBUTES) makeFolder();
  unsigned number = 1;
  for (const std::wstring& name : LogFileNames(folder, service)) {
    const std::wstring age(LogAge(name));
    if (age.compare(1, kDayLength, day) == 0) {
      number = static_cast<unsigned>(std::wcstoul(age.c_str() + kDayLength + 2, nullptr, 10));
    }
  }
  for (; number <= kLastNumber; ++number) {
    const std::wstring name = service + AgeOf(day, number);
    const std::wstring path = folder + L"\\" + name;
    Platform::UniqueHandle opened =
        Platform::OpenDiskFile(path, GENERIC_READ | FILE_APPEND_DATA, FILE_SHARE_READ,
                               FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, OPEN_ALWAYS);
    // Another process is writing to the file, or a program has it open with delete access.
    if (opened == nullptr && GetLastError() == ERROR_SHARING_VIOLATION) continue;
    if (opened == nullptr) ThrowError(folder, GetLastError());
    LARGE_INTEGER length{};
    GetFileSizeEx(opened.get(), &length);
    size = static_cast<std::uint64_t>(length.QuadPart);
    if (size != 0 && size + lineSize > limits.fileBytes) continue;
    file = std::move(opened);
    fileDay = day;
    fileName = name;
    if (size != 0) {
      char end = '\n';
      DWORD count = 0;
      SetFilePointerEx(file.get(), {.QuadPart = length.QuadPart - 1}, nullptr, FILE_BEGIN);
      ReadFile(file.get(), &end, 1, &count, nullptr);
      if (end != '\n' && WriteFile(file.get(), "\n", 1, &count, nullptr) != FALSE) ++size;
    }
    DeleteOldest();
    return;
  }
  ThrowError(folder, ERROR_NO_MORE_FILES);
}

// Orders files by last write, because the clock may have been wrong when a file was named.
void LogFolder::DeleteOldest() const {
  std::vector<LogFile> files = LogFiles(folder, service);
  std::erase_if(files, [this](const LogFile& each) { return each.name == fileName; });
  std::ranges::stable_sort(files, {}, &LogFile::written);
  for (std::size_t i = 0; i + limits.files < files.size() + 1; ++i) {
    // A file that a reader has open without delete sharing is kept until the next new file.
    static_cast<void>(DeleteFileW((folder + L"\\" + files[i].name).c_str()));
  }
}

}  // namespace Vx::Hosting::ServiceHost
