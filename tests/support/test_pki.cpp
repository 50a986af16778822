#include "support/test_pki.h"

#include <atomic>
#include <stdexcept>

#include <windows.h>

#include "platform/environment.h"
#include "platform/machine.h"
#include "support/probe.h"
#include "support/temp_folder.h"

namespace Vx::Tests {

std::wstring PkiFile(const wchar_t* name) {
  return BuiltFile(std::wstring(L"pki\\") + name);
}

ProtectedFolder::ProtectedFolder() {
  static std::atomic<unsigned> counter{0};
  const std::wstring text =
      L"%ProgramFiles%\\VxTest-" + std::to_wstring(GetCurrentProcessId()) + L"-";
  const std::wstring base = *Platform::WindowsMachine().environment->Expand(text, MAX_PATH);
  // A crashed run may have left the folder of a process id that is in use again.
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

}  // namespace Vx::Tests
