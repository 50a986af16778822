#include "support/test_pki.h"

#include <atomic>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include <windows.h>

#include "support/temp_folder.h"

namespace Vx::Tests {

namespace {

std::wstring ProgramFolder() {
  std::wstring path(32767, L'\0');
  path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
  return path.substr(0, path.rfind(L'\\'));
}

std::wstring Variable(const wchar_t* name) {
  std::wstring value(32767, L'\0');
  value.resize(GetEnvironmentVariableW(name, value.data(), static_cast<DWORD>(value.size())));
  return value;
}

}  // namespace

std::wstring PkiFile(const wchar_t* name) {
  return ProgramFolder() + L"\\pki\\" + name;
}

ProtectedFolder::ProtectedFolder() {
  static std::atomic<unsigned> counter{0};
  const std::wstring base =
      Variable(L"ProgramFiles") + L"\\VxTest-" + std::to_wstring(GetCurrentProcessId()) + L"-";
  // A run that died may have left the folder of a process id that is in use again.
  do {
    path = base + std::to_wstring(++counter);
    if (CreateDirectoryW(path.c_str(), nullptr) != FALSE) return;
  } while (GetLastError() == ERROR_ALREADY_EXISTS);
  throw std::runtime_error("cannot make a folder below %PROGRAMFILES%");
}

ProtectedFolder::~ProtectedFolder() {
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(path, ignored)) {
    RemoveFile(entry.path().wstring());
  }
  RemoveFolder(path);
}

std::wstring ProtectedFolder::Hold(const wchar_t* name) const {
  std::wstring copy = *this / name;
  if (CopyFileW(PkiFile(name).c_str(), copy.c_str(), FALSE) == FALSE) {
    throw std::runtime_error("cannot copy a test program");
  }
  return copy;
}

}  // namespace Vx::Tests
