#include "support/temp_folder.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <system_error>

#include <windows.h>

namespace Vx::Tests {

namespace {

constexpr int kTries = 400;
constexpr DWORD kPause = 5;  // milliseconds

void Insist(BOOL(WINAPI* remove)(const wchar_t*), const std::wstring& path) {
  for (int tries = 0; tries < kTries; ++tries) {
    if (remove(path.c_str()) != FALSE) return;
    const DWORD error = GetLastError();
    if (error != ERROR_ACCESS_DENIED && error != ERROR_SHARING_VIOLATION) return;
    Sleep(kPause);
  }
}

}  // namespace

void RemoveFile(const std::wstring& path) {
  SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
  Insist(&DeleteFileW, path);
}

void RemoveFolder(const std::wstring& path) {
  Insist(&RemoveDirectoryW, path);
}

// This runtime's std::filesystem::remove_all follows directory links and empties their targets.
void RemoveTree(const std::wstring& folder) {
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(folder, ignored)) {
    const std::wstring path = entry.path().wstring();
    const DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) continue;
    if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) continue;
    (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? RemoveTree(path) : RemoveFile(path);
  }
  RemoveFolder(folder);
}

TempFolder::TempFolder() {
  static std::atomic<unsigned> counter{0};
  path = std::filesystem::temp_directory_path() /
         (L"vx-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++counter));
  std::filesystem::create_directories(path);
}

TempFolder::~TempFolder() {
  RemoveTree(path.wstring());
}

EnvironmentOverride::EnvironmentOverride(const wchar_t* variable, const std::wstring& value)
    : name(variable) {
  wchar_t buffer[32767];
  const DWORD length = GetEnvironmentVariableW(name, buffer, static_cast<DWORD>(std::size(buffer)));
  if (length > 0) previous.emplace(buffer, length);
  SetEnvironmentVariableW(name, value.c_str());
}

EnvironmentOverride::~EnvironmentOverride() {
  SetEnvironmentVariableW(name, previous ? previous->c_str() : nullptr);
}

void PrivateStore::Block() const {
  std::filesystem::remove_all(folder / L"Vx");
  std::ofstream(folder.Path() / L"Vx") << "no folder";
}

}  // namespace Vx::Tests
