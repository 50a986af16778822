#include <array>
#include <atomic>
#include <memory>

#include <windows.h>

#include <shlobj.h>

#include "acceptance/kit.h"
#include "hosting/text.h"
#include "hosting/windows_error.h"

namespace Vx::Acceptance {

namespace {

using Hosting::Utf8;
using Hosting::Wide;
using Hosting::WindowsError;
using Platform::UniqueHandle;

constexpr wchar_t kName[] = L"VxAcceptance";
constexpr wchar_t kWindowsKey[] = LR"(SOFTWARE\Microsoft\Windows NT\CurrentVersion)";

// By default, a task does not start on battery power or while an earlier instance is ending, and
// runs at less than normal priority:
// https://learn.microsoft.com/windows/win32/taskschd/taskschedulerschema-settingstype-complextype
constexpr wchar_t kTask[] =
    LR"(<?xml version="1.0" encoding="UTF-16"?>
<Task version="1.2" xmlns="http://schemas.microsoft.com/windows/2004/02/mit/task">
<Principals><Principal id="P"><UserId>S-1-5-18</UserId><RunLevel>HighestAvailable</RunLevel></Principal></Principals>
<Settings><MultipleInstancesPolicy>Parallel</MultipleInstancesPolicy>
<DisallowStartIfOnBatteries>false</DisallowStartIfOnBatteries>
<StopIfGoingOnBatteries>false</StopIfGoingOnBatteries><Priority>5</Priority></Settings>
<Actions Context="P"><Exec><Command>)";

std::wstring KnownFolder(const GUID& id) {
  wchar_t* raw = nullptr;
  const HRESULT result = SHGetKnownFolderPath(id, 0, nullptr, &raw);
  const std::unique_ptr<wchar_t, decltype(&CoTaskMemFree)> folder(raw, &CoTaskMemFree);
  if (FAILED(result)) throw std::runtime_error("Windows does not report one of its folders");
  return raw;
}

std::wstring BuildText(const wchar_t* value) {
  std::array<wchar_t, 128> text{};
  DWORD size = sizeof text;
  RegGetValueW(HKEY_LOCAL_MACHINE, kWindowsKey, value, RRF_RT_REG_SZ, nullptr, text.data(), &size);
  return text.data();
}

DWORD MachineNumber(const wchar_t* key, const wchar_t* value) {
  DWORD number = 0;
  DWORD size = sizeof number;
  RegGetValueW(HKEY_LOCAL_MACHINE, key, value, RRF_RT_REG_DWORD, nullptr, &number, &size);
  return number;
}

// Windows closes a job when the process that created it exits, even if it is killed, and then
// terminates the programs in the job. Their child processes leave the job, because all processes of
// a job share one session, and the module starts programs in another:
// https://learn.microsoft.com/windows/win32/api/jobapi2/nf-jobapi2-assignprocesstojobobject
HANDLE MakeJob() {
  HANDLE const job = CreateJobObjectW(nullptr, nullptr);
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
  limits.BasicLimitInformation.LimitFlags =
      JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE | JOB_OBJECT_LIMIT_SILENT_BREAKAWAY_OK;
  SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof limits);
  return job;
}

// The job of the programs that this one starts.
HANDLE Job() {
  static HANDLE const job = MakeJob();
  return job;
}

std::atomic<DWORD> endingThread{0};

UniqueHandle StartWith(std::wstring commandLine, HANDLE output) {
  if (endingThread != 0 && endingThread != GetCurrentThreadId()) {
    throw std::runtime_error("the kit is ending");
  }
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = output != nullptr ? STARTF_USESTDHANDLES : 0;
  startup.hStdOutput = startup.hStdError = output;
  PROCESS_INFORMATION started{};
  if (CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, output != nullptr, 0, nullptr,
                     nullptr, &startup, &started) == FALSE) {
    throw WindowsError("cannot start " + Utf8(commandLine), GetLastError());
  }
  UniqueHandle process(started.hProcess);
  const UniqueHandle thread(started.hThread);
  AssignProcessToJobObject(Job(), process.get());
  return process;
}

std::wstring TaskCommand(const wchar_t* verb) {
  return SystemProgram(L"schtasks.exe") + L" " + verb + L" /tn " + kName;
}

}  // namespace

bool IsWine() {
  return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

void NeedsWindows(const char* whatWineLacks) {
  if (IsWine()) throw NotTried(std::string("this is Wine: ") + whatWineLacks);
}

bool IsElevated() {
  HANDLE raw = nullptr;
  if (OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &raw) == FALSE) return false;
  const UniqueHandle token(raw);
  TOKEN_ELEVATION elevation{};
  DWORD size = 0;
  return GetTokenInformation(raw, TokenElevation, &elevation, sizeof elevation, &size) != FALSE &&
         elevation.TokenIsElevated != 0;
}

std::string WindowsBuild() {
  // Omits ProductName, which is "Windows 10" even on Windows 11.
  return Utf8((IsWine() ? L"Wine, as Windows " : L"Windows ") + BuildText(L"DisplayVersion") +
              L" " + BuildText(L"EditionID") + L", build " + BuildText(L"CurrentBuild") + L"." +
              std::to_wstring(MachineNumber(kWindowsKey, L"UBR")));
}

// 1 means that it blocks, 2 that it only evaluates:
// https://learn.microsoft.com/windows/apps/develop/smart-app-control/test-your-app-with-smart-app-control
bool SmartAppControlBlocks() {
  return MachineNumber(LR"(SYSTEM\CurrentControlSet\Control\CI\Policy)",
                       L"VerifiedAndReputablePolicyState") == 1;
}

bool Exists(const std::wstring& path) {
  return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::wstring ProgramFiles(const wchar_t* name) {
  return KnownFolder(FOLDERID_ProgramFiles) + L"\\" + name;
}

std::wstring ProgramData(const wchar_t* name) {
  return KnownFolder(FOLDERID_ProgramData) + L"\\" + name;
}

std::wstring SystemProgram(const wchar_t* name) {
  return L"\"" + KnownFolder(FOLDERID_System) + L"\\" + name + L"\"";
}

std::wstring KitFolder() {
  return ProgramFiles(kName);
}

std::wstring KitFile(const wchar_t* name) {
  return KitFolder() + L"\\" + name;
}

std::wstring UserFolder() {
  return ProgramData(kName);
}

Finished Run(const std::wstring& commandLine) {
  SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
  HANDLE rawRead = nullptr;
  HANDLE rawWrite = nullptr;
  if (CreatePipe(&rawRead, &rawWrite, &inherited, 0) == FALSE) {
    throw WindowsError("cannot make a pipe", GetLastError());
  }
  const UniqueHandle read(rawRead);
  UniqueHandle write(rawWrite);
  SetHandleInformation(rawRead, HANDLE_FLAG_INHERIT, 0);
  const UniqueHandle process = StartWith(commandLine, write.get());
  write.reset();
  Finished finished{};
  std::array<char, 4096> part{};
  DWORD count = 0;
  while (ReadFile(rawRead, part.data(), static_cast<DWORD>(part.size()), &count, nullptr) !=
         FALSE) {
    finished.output.append(part.data(), count);
  }
  WaitForSingleObject(process.get(), INFINITE);
  DWORD code = 0;
  GetExitCodeProcess(process.get(), &code);
  finished.code = code;
  return finished;
}

void Require(bool holds, const std::string& otherwise) {
  if (!holds) throw std::runtime_error(otherwise);
}

std::string Expect(const std::wstring& commandLine, const std::string& text) {
  Finished finished = Run(commandLine);
  Require(finished.code == 0 && finished.output.find(text) != std::string::npos,
          Utf8(commandLine) + " exits with " + std::to_string(finished.code) +
              (text.empty() ? "" : " and should print " + text) + ": " + finished.output);
  return std::move(finished.output);
}

std::wstring Tool(const std::wstring& arguments) {
  return L"\"" + KitFile(L"bin\\vxhost.exe") + L"\" " + arguments;
}

UniqueHandle Start(const std::wstring& commandLine) {
  return StartWith(commandLine, nullptr);
}

// The shell has the token of the desktop's user, even if another account approved the elevation:
// https://learn.microsoft.com/windows/win32/api/winbase/nf-winbase-createprocesswithtokenw
UniqueHandle StartAsUser(const std::wstring& commandLine) {
  DWORD id = 0;
  GetWindowThreadProcessId(GetShellWindow(), &id);
  const UniqueHandle shell(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, id));
  HANDLE raw = nullptr;
  constexpr DWORD kAccess = TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_ASSIGN_PRIMARY;
  if (shell == nullptr || OpenProcessToken(shell.get(), kAccess, &raw) == FALSE) {
    throw NotTried("there is no desktop whose user could run it");
  }
  const UniqueHandle token(raw);
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  std::wstring line = commandLine;
  PROCESS_INFORMATION started{};
  if (CreateProcessWithTokenW(raw, 0, nullptr, line.data(),
                              CREATE_NO_WINDOW | CREATE_UNICODE_ENVIRONMENT, nullptr, nullptr,
                              &startup, &started) == FALSE) {
    throw WindowsError("cannot start it as the user", GetLastError());
  }
  const UniqueHandle thread(started.hThread);
  return UniqueHandle(started.hProcess);
}

bool HasEnded(const UniqueHandle& process) {
  return WaitForSingleObject(process.get(), 0) == WAIT_OBJECT_0;
}

void StartTask(const std::wstring& program, const std::wstring& arguments) {
  const std::wstring file = KitFile(L"task.xml");
  const std::wstring text = L"\xFEFF" + (kTask + Wide(Hosting::Markup(Utf8(program)))) +
                            L"</Command><Arguments>" + Wide(Hosting::Markup(Utf8(arguments))) +
                            L"</Arguments></Exec></Actions></Task>";
  // The task scheduler expects UTF-16.
  Hosting::WriteTextFile(
      file, std::string(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)));
  Expect(TaskCommand(L"/create") + L" /f /xml \"" + file + L"\"");
  Expect(TaskCommand(L"/run"));
}

void EndTask() {
  Run(TaskCommand(L"/end"));
  Run(TaskCommand(L"/delete") + L" /f");
}

void EndPrograms() noexcept {
  endingThread = GetCurrentThreadId();
  TerminateJobObject(Job(), 1);
}

void Pause(std::chrono::milliseconds length) {
  Sleep(static_cast<DWORD>(length.count()));
}

}  // namespace Vx::Acceptance
