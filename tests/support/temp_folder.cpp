#include "support/temp_folder.h"

#include <atomic>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <windows.h>

#include "platform/environment.h"
#include "platform/machine.h"
#include "support/probe.h"
#include "support/threads.h"

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

bool IsLink(const std::wstring& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}

// Returns the host system's name of `path` in double quotes, or an empty string on Windows.
std::wstring UnixName(const std::wstring& path) {
  using NameFunction = char*(CDECL*)(LPCWSTR);
  const auto name = reinterpret_cast<NameFunction>(reinterpret_cast<void*>(
      GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name")));
  char* text = name == nullptr ? nullptr : name(path.c_str());
  if (text == nullptr) return {};
  std::wstring wide(4096, L'\0');
  wide.resize(static_cast<std::size_t>(
      MultiByteToWideChar(CP_UTF8, 0, text, -1, wide.data(), static_cast<int>(wide.size()))));
  HeapFree(GetProcessHeap(), 0, text);
  if (!wide.empty()) wide.pop_back();
  return L"\"" + wide + L"\"";
}

// A Unix program cannot be waited for, so callers check for its effect. The emulator returns
// uninitialized values as handles, and closing them once closed a test's file.
void StartOutside(const wchar_t* program, std::wstring commandLine) {
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  CreateProcessW(program, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                 &startup, &process);
}

}  // namespace

void RemoveFile(const std::wstring& path) {
  SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
  Insist(&DeleteFileW, path);
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
  Insist(&RemoveDirectoryW, folder);
}

std::string ReadText(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void WriteText(const std::filesystem::path& path, std::string_view content) {
  std::ofstream(path, std::ios::binary) << content;
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

PrivateStore::PrivateStore() : variable(L"ProgramData", folder.Path().wstring()) {
  // Unless it is loaded, the emulator reads this library from disk for each DPAPI call, which would
  // be half the time of many tests.
  [[maybe_unused]] static const HMODULE provider =
      LoadLibraryExW(L"rsaenh.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
}

void PrivateStore::Block() const {
  std::filesystem::remove_all(folder / L"Vx");
  WriteText(folder.Path() / L"Vx", "no folder");
}

std::wstring PkiFile(const wchar_t* name) {
  return BuiltFile(std::wstring(L"pki\\") + name);
}

ProtectedFolder::ProtectedFolder() {
  static std::atomic<unsigned> counter{0};
  const std::wstring text =
      L"%ProgramFiles%\\VxTest-" + std::to_wstring(GetCurrentProcessId()) + L"-";
  const std::wstring base = *Platform::WindowsMachine().environment->Expand(text, MAX_PATH);
  // A crashed run with the same process ID may have left the folder behind.
  do {
    path = base + std::to_wstring(++counter);
    if (CreateDirectoryW(path.c_str(), nullptr) != FALSE) return;
  } while (GetLastError() == ERROR_ALREADY_EXISTS);
  throw std::runtime_error("cannot make a folder below %PROGRAMFILES%");
}

ProtectedFolder::~ProtectedFolder() {
  RemoveTree(path);
}

std::wstring ProtectedFolder::Hold(const wchar_t* name) const {
  std::wstring copy = *this / name;
  if (CopyFileW(PkiFile(name).c_str(), copy.c_str(), FALSE) == FALSE) {
    throw std::runtime_error("cannot copy a test program");
  }
  return copy;
}

DirectoryLink::DirectoryLink(std::wstring where, const std::wstring& target)
    : path(std::move(where)) {
  CreateSymbolicLinkW(path.c_str(), target.c_str(), SYMBOLIC_LINK_FLAG_DIRECTORY);
  if (IsLink(path)) return;
  outside = true;
  StartOutside(L"\\\\?\\unix\\bin\\ln", L"ln -sfn " + UnixName(target) + L" " + UnixName(path));
  if (!Eventually([this] { return IsLink(path); })) {
    throw std::runtime_error("cannot make a directory link");
  }
}

DirectoryLink::~DirectoryLink() {
  if (!outside) {
    RemoveDirectoryW(path.c_str());
    return;
  }
  StartOutside(L"\\\\?\\unix\\bin\\rm", L"rm -f " + UnixName(path));
  Eventually([this] { return GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES; });
}

}  // namespace Vx::Tests
