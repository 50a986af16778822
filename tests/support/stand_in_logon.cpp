#include "support/stand_in_logon.h"

#include <atomic>
#include <stdexcept>

#include <windows.h>

#include "support/probe.h"

namespace Vx::Tests {

StandInLogon::StandInLogon(const std::wstring& folder) {
  static std::atomic<unsigned> counter{0};
  const std::wstring name =
      L"vx-logon-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++counter);
  const std::wstring program = folder + L"\\winlogon.exe";
  const std::wstring report = folder + L"\\winlogon.out";
  std::wstring commandLine = L"\"" + program + L"\" \"" + report + L"\" wait:" + name;
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION made{};

  leave.reset(CreateEventW(nullptr, TRUE, FALSE, name.c_str()));
  if (leave == nullptr || CopyFileW(ProbePath().c_str(), program.c_str(), TRUE) == FALSE ||
      CreateProcessW(program.c_str(), commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr,
                     nullptr, &startup, &made) == FALSE) {
    throw std::runtime_error("cannot start the stand-in logon process");
  }
  const Platform::UniqueHandle thread(made.hThread);
  process.reset(made.hProcess);
  if (!WaitForProbe(report)) throw std::runtime_error("the stand-in logon process is not running");
}

StandInLogon::~StandInLogon() {
  SetEvent(leave.get());
  // Its program can be deleted only once it is gone.
  if (WaitForSingleObject(process.get(), 10'000) != WAIT_OBJECT_0) {
    TerminateProcess(process.get(), 1);
  }
}

}  // namespace Vx::Tests
