#include "vxhost/service/log_follower.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include <windows.h>

#include "hosting/text.h"
#include "platform/unique_handle.h"
#include "platform/windows/file_handle.h"
#include "servicehost/log_folder.h"

namespace Vx::Hosting::Tool {

namespace {

constexpr std::size_t kPiece = 65536;  // bytes

// Shares all access, because the writer appends to the file and deletes old files.
Platform::UniqueHandle OpenLog(const std::wstring& path) {
  return Platform::OpenDiskFile(path, GENERIC_READ,
                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
}

}  // namespace

LogFollower::LogFollower(std::wstring where, std::vector<std::wstring> names, From from)
    : folder(std::move(where)), services(std::move(names)) {
  WIN32_FIND_DATAW found;
  const HANDLE listing = FindFirstFileW((folder + L"\\*").c_str(), &found);
  if (listing == INVALID_HANDLE_VALUE) {
    throw std::runtime_error("cannot list " + Utf8(folder) + " (error " +
                             std::to_string(GetLastError()) + "); run as administrator");
  }
  FindClose(listing);
  const auto files = Files();
  if (files.empty()) return;
  file = from == From::Start ? files.front() : files.back();
  if (from == From::Start) return;
  LARGE_INTEGER size{};
  if (const auto opened = OpenLog(folder + L"\\" + file); opened != nullptr) {
    GetFileSizeEx(opened.get(), &size);
  }
  offset = static_cast<std::uint64_t>(size.QuadPart);
}

// Returns the files, oldest first.
std::vector<std::wstring> LogFollower::Files() const {
  std::vector<std::wstring> names;
  for (const std::wstring& service : services) {
    for (std::wstring& name : ServiceHost::LogFileNames(folder, service)) {
      if (std::ranges::find(names, name) == names.end()) names.push_back(std::move(name));
    }
  }
  return names;
}

std::optional<std::string> LogFollower::Next() {
  std::size_t end = rest.find('\n', next);
  while (end == std::string::npos) {
    if (!Read(file)) {
      // Move on to the next file, if any. The writer adds nothing to a file that it has left.
      const auto names = Files();
      auto later = std::ranges::find(names, file);
      // If there was no file yet, or it was deleted, continue with the newest one.
      if (!names.empty()) later = later == names.end() ? later - 1 : later + 1;
      if (later == names.end()) return std::nullopt;
      if (!Read(file)) {
        file = *later;
        offset = 0;
        rest.clear();
        next = 0;
      }
    }
    end = rest.find('\n');
  }
  std::string line = rest.substr(next, end - next);
  next = end + 1;
  return line;
}

// Appends the next piece of the file to `rest`. Returns false if there is none.
bool LogFollower::Read(const std::wstring& name) {
  if (name.empty()) return false;
  const auto opened = OpenLog(folder + L"\\" + name);
  LARGE_INTEGER position{};
  position.QuadPart = static_cast<LONGLONG>(offset);
  if (opened == nullptr || SetFilePointerEx(opened.get(), position, nullptr, FILE_BEGIN) == FALSE) {
    return false;
  }
  std::string piece(kPiece, '\0');
  DWORD count = 0;
  if (ReadFile(opened.get(), piece.data(), kPiece, &count, nullptr) == FALSE || count == 0) {
    return false;
  }
  offset += count;
  rest.erase(0, std::exchange(next, 0));
  rest.append(piece, 0, count);
  return true;
}

}  // namespace Vx::Hosting::Tool
