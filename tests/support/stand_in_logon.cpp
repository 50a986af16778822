#include "support/stand_in_logon.h"

#include <atomic>
#include <stdexcept>

#include <windows.h>

#include "platform/machine.h"
#include "platform/processes.h"
#include "support/probe.h"

namespace Vx::Tests {

StandInLogon::StandInLogon(const std::wstring& folder) {
  static std::atomic<unsigned> counter{0};
  const std::wstring name =
      L"vx-logon-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++counter);
  const std::wstring program = folder + L"\\winlogon.exe";
  const std::wstring report = folder + L"\\winlogon.out";
  leave.reset(CreateEventW(nullptr, TRUE, FALSE, name.c_str()));
  CopyFileW(ProbePath().c_str(), program.c_str(), TRUE);
  Platform::ProcessStart start;
  start.application = program;
  start.commandLine = L"\"" + program + L"\" \"" + report + L"\" wait:" + name;
  const auto id = Platform::WindowsMachine().processes->Start(nullptr, start);
  if (id) process.reset(OpenProcess(SYNCHRONIZE | PROCESS_TERMINATE, FALSE, *id));
  if (!WaitForProbe(report)) throw std::runtime_error("the stand-in logon process is not running");
}

StandInLogon::~StandInLogon() {
  SetEvent(leave.get());
  // Its program cannot be deleted while it runs.
  if (WaitForSingleObject(process.get(), 10'000) != WAIT_OBJECT_0) {
    TerminateProcess(process.get(), 1);
  }
}

}  // namespace Vx::Tests
