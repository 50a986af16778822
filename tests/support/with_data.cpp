// with_data PROGRAM ARG...: runs a program with the variable VX_PROGRAM_DATA as its ProgramData,
// and returns its exit code. The emulator sets ProgramData itself for programs started from Unix.
#include <string>

#include <windows.h>

#include "platform/unique_handle.h"

namespace {

// Returns the command line after this program's name, which is quoted or contains no space.
std::wstring OwnArguments() {
  const std::wstring line = GetCommandLineW();
  return line.substr(line.front() == L'"' ? line.find(L'"', 1) + 2 : line.find(L' ') + 1);
}

}  // namespace

int wmain() {
  wchar_t folder[MAX_PATH];
  const DWORD length = GetEnvironmentVariableW(L"VX_PROGRAM_DATA", folder, MAX_PATH);
  if (length == 0 || length >= MAX_PATH) return 125;  // not set, or too long
  SetEnvironmentVariableW(L"ProgramData", folder);
  std::wstring line = OwnArguments();
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION started{};
  if (CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                     &started) == FALSE) {
    static_cast<void>(
        std::fwprintf(stderr, L"cannot start %ls: error %lu\n", line.c_str(), GetLastError()));
    return 126;
  }
  const Vx::Platform::UniqueHandle process(started.hProcess);
  const Vx::Platform::UniqueHandle thread(started.hThread);
  WaitForSingleObject(process.get(), INFINITE);
  DWORD code = 0;
  GetExitCodeProcess(process.get(), &code);
  return static_cast<int>(code);
}
