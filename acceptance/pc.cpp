#include <array>
#include <filesystem>
#include <memory>
#include <utility>

#include <windows.h>

#include <shlobj.h>

#include "acceptance/kit.h"
#include "hosting/text.h"

namespace Vx::Acceptance {

namespace {

using Hosting::Utf8;
using Hosting::WindowsError;
using Platform::UniqueHandle;

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
constexpr wchar_t kTaskFile[] = L"task.xml";

std::wstring KnownFolder(const GUID& id) {
  wchar_t* raw = nullptr;
  const HRESULT result = SHGetKnownFolderPath(id, 0, nullptr, &raw);
  const std::unique_ptr<wchar_t, decltype(&CoTaskMemFree)> folder(raw, &CoTaskMemFree);
  if (FAILED(result)) throw std::runtime_error("Windows does not report one of its folders");
  return raw;
}

// The job of the programs that this one starts. Windows closes it when this process exits, even if
// it is killed, and then terminates them. Their child processes leave the job, because all
// processes of a job share one session, and the module starts programs in another:
// https://learn.microsoft.com/windows/win32/api/jobapi2/nf-jobapi2-assignprocesstojobobject
HANDLE Job() {
  static HANDLE const job = [] {
    HANDLE const made = CreateJobObjectW(nullptr, nullptr);
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags =
        JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE | JOB_OBJECT_LIMIT_SILENT_BREAKAWAY_OK;
    SetInformationJobObject(made, JobObjectExtendedLimitInformation, &limits, sizeof limits);
    return made;
  }();
  return job;
}

// Starts a program as the user of `token`, or as this account if null. Ctrl+C does not reach it,
// because it would also end the programs that clean up.
UniqueHandle StartWith(std::wstring commandLine, HANDLE token, HANDLE output) {
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = output != nullptr ? STARTF_USESTDHANDLES : STARTF_USESHOWWINDOW;
  startup.wShowWindow = SW_HIDE;
  startup.hStdOutput = startup.hStdError = output;
  PROCESS_INFORMATION started{};
  const BOOL done =
      token != nullptr
          ? CreateProcessWithTokenW(token, 0, nullptr, commandLine.data(),
                                    CREATE_NO_WINDOW | CREATE_UNICODE_ENVIRONMENT, nullptr,
                                    ProgramFiles(kKitName).c_str(), &startup, &started)
          : CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, output != nullptr,
                           CREATE_NEW_PROCESS_GROUP, nullptr, nullptr, &startup, &started);
  if (done == FALSE) {
    const DWORD error = GetLastError();
    if (token != nullptr && error == ERROR_SERVICE_DISABLED) {
      throw NotTried("the service that starts programs as another user is disabled");
    }
    throw WindowsError("cannot start " + Utf8(commandLine), error);
  }
  UniqueHandle process(started.hProcess);
  const UniqueHandle thread(started.hThread);
  AssignProcessToJobObject(Job(), process.get());
  return process;
}

std::wstring TaskCommand(const wchar_t* verb) {
  return SystemProgram(L"schtasks.exe") + L" " + verb + L" /tn " + kKitName;
}

void StartTask(const std::wstring& program, const std::wstring& arguments) {
  const std::wstring file = KitFile(kTaskFile);
  const std::wstring text = L"\xFEFF" + (kTask + program) + L"</Command><Arguments>" + arguments +
                            L"</Arguments></Exec></Actions></Task>";
  // The task scheduler expects UTF-16.
  Hosting::WriteTextFile(
      file, std::string(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)));
  Expect(TaskCommand(L"/create") + L" /f /xml " + InQuotes(file));
  Expect(TaskCommand(L"/run"));
}

// The shell has the token of the desktop's user, even if another account approved the elevation:
// https://learn.microsoft.com/windows/win32/api/winbase/nf-winbase-createprocesswithtokenw
// Starting a program with it also takes the rights to adjust it, which that page does not list.
UniqueHandle DesktopToken() {
  DWORD id = 0;
  GetWindowThreadProcessId(GetShellWindow(), &id);
  const UniqueHandle shell(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, id));
  HANDLE raw = nullptr;
  if (shell == nullptr || OpenProcessToken(shell.get(), TOKEN_DUPLICATE, &raw) == FALSE) {
    throw NotTried("Windows gives no access to a desktop's user: sign in as an administrator");
  }
  const UniqueHandle own(std::exchange(raw, nullptr));
  constexpr DWORD kAccess = TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_ASSIGN_PRIMARY |
                            TOKEN_ADJUST_DEFAULT | TOKEN_ADJUST_SESSIONID;
  if (DuplicateTokenEx(own.get(), kAccess, nullptr, SecurityImpersonation, TokenPrimary, &raw) ==
      FALSE) {
    throw WindowsError("cannot use the token of the desktop's user", GetLastError());
  }
  return UniqueHandle(raw);
}

}  // namespace

bool IsWine() {
  return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

void NeedsWindows(const char* whatWineLacks) {
  if (IsWine()) throw NotTried(std::string("this is Wine: ") + whatWineLacks);
}

bool Exists(const std::wstring& path) {
  return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::string ContentOf(const std::wstring& path) {
  try {
    return Exists(path) ? Utf8(Hosting::ReadTextFile(path)) : std::string();
  } catch (const std::exception&) {
    return {};
  }
}

std::wstring InQuotes(const std::wstring& path) {
  return L"\"" + path + L"\"";
}

std::wstring ProgramFiles(const wchar_t* name) {
  return KnownFolder(FOLDERID_ProgramFiles) + L"\\" + name;
}

std::wstring ProgramData(const wchar_t* name) {
  return KnownFolder(FOLDERID_ProgramData) + L"\\" + name;
}

std::wstring SystemProgram(const wchar_t* name) {
  return InQuotes(KnownFolder(FOLDERID_System) + L"\\" + name);
}

std::wstring KitFile(const wchar_t* name) {
  return ProgramFiles(kKitName) + L"\\" + name;
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
  const UniqueHandle process = StartWith(commandLine, nullptr, write.get());
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
  return InQuotes(KitFile(L"bin\\vxhost.exe")) + L" " + arguments;
}

std::wstring ToolWithStore(const wchar_t* subfolder) {
  std::filesystem::create_directory(KitFile(subfolder));
  return Tool(L"--store " + InQuotes(KitFile(subfolder)) + L" ");
}

std::wstring Subscribing(int event, const std::wstring& program, const std::wstring& report) {
  return L"subscriptions add --force --power " + std::to_wstring(event) + L" --run " +
         InQuotes(program) + L" --arguments \"\\\"" + report + L"\\\"\"";
}

UniqueHandle StartKit(Account account, const std::wstring& arguments) {
  const std::wstring program = KitFile(L"acceptance.exe");
  const std::wstring line = InQuotes(program) + L" " + arguments;
  if (account == Account::Administrator || IsWine()) return StartWith(line, nullptr, nullptr);
  if (account == Account::User) return StartWith(line, DesktopToken().get(), nullptr);
  StartTask(program, arguments);
  return nullptr;
}

bool HasEnded(const UniqueHandle& process) {
  return WaitForSingleObject(process.get(), 0) == WAIT_OBJECT_0;
}

// All processes of a job are in one session, which applies to a task's programs if its job allows
// no breakaway. https://learn.microsoft.com/windows/win32/procthread/job-objects
void NeedsOtherSessions() {
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION job{};
  if (QueryInformationJobObject(nullptr, JobObjectExtendedLimitInformation, &job, sizeof job,
                                nullptr) != FALSE &&
      (job.BasicLimitInformation.LimitFlags & JOB_OBJECT_LIMIT_SILENT_BREAKAWAY_OK) == 0) {
    throw NotTried("from this task, Windows starts no program in another session");
  }
}

void EndPrograms() {
  TerminateJobObject(Job(), 1);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // until all have exited
}

void EndTask() {
  if (!Exists(KitFile(kTaskFile))) return;
  Run(TaskCommand(L"/end"));
  Run(TaskCommand(L"/delete") + L" /f");
  Require(Run(TaskCommand(L"/query")).code == 1, "the task VxAcceptance cannot be deleted");
  DeleteFileW(KitFile(kTaskFile).c_str());
}

}  // namespace Vx::Acceptance
