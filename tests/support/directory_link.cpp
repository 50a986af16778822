#include "support/directory_link.h"

#include <stdexcept>
#include <utility>

#include <windows.h>

namespace Vx::Tests {

namespace {

constexpr int kPatience = 2000;  // milliseconds

bool IsLink(const std::wstring& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}

// Returns the host system's name of `path` in double quotes, or an empty text on Windows.
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

// The end of such a program cannot be waited for, so the caller checks for its effect. The emulator
// returns stack leftovers instead of handles, so none are closed. Closing them once hit a file of a
// test.
void StartOutside(const wchar_t* program, std::wstring commandLine) {
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  CreateProcessW(program, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                 &startup, &process);
}

template <typename Condition>
bool WaitFor(Condition condition) {
  for (int waited = 0; waited < kPatience; ++waited) {
    if (condition()) return true;
    Sleep(1);
  }
  return condition();
}

}  // namespace

DirectoryLink::DirectoryLink(std::wstring where, const std::wstring& target)
    : path(std::move(where)) {
  CreateSymbolicLinkW(path.c_str(), target.c_str(), SYMBOLIC_LINK_FLAG_DIRECTORY);
  if (IsLink(path)) return;
  outside = true;
  StartOutside(L"\\\\?\\unix\\bin\\ln", L"ln -sfn " + UnixName(target) + L" " + UnixName(path));
  if (!WaitFor([this] { return IsLink(path); })) {
    throw std::runtime_error("cannot make a directory link");
  }
}

DirectoryLink::~DirectoryLink() {
  if (!outside) {
    RemoveDirectoryW(path.c_str());
    return;
  }
  StartOutside(L"\\\\?\\unix\\bin\\rm", L"rm -f " + UnixName(path));
  WaitFor([this] { return GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES; });
}

}  // namespace Vx::Tests
