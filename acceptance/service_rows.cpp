#include <chrono>
#include <exception>
#include <string_view>

#include <windows.h>

#include "acceptance/kit.h"
#include "hosting/text.h"

namespace Vx::Acceptance {

namespace {

using Hosting::Utf8;
using std::chrono::seconds;

constexpr wchar_t kName[] = L" --name VxAcceptance";
constexpr wchar_t kParameters[] = LR"(SYSTEM\CurrentControlSet\Services\VxAcceptance\Parameters)";

// The service, installed but not started. The destructor removes it with its data.
class Service {
 public:
  enum class For { Use, Development };
  explicit Service(For purpose) {
    if (Exists(ProgramData(L"Vx")))
      throw NotTried(Utf8(ProgramData(L"Vx")) + " belongs to this PC");
    NoteData();
    // Under Wine, no folder belongs to the administrators, as it must outside development.
    Expect(Tool(L"service install --start demand") + kName +
               (purpose == For::Development || IsWine() ? L" --development" : L""),
           "is installed");
  }
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;
  ~Service() {
    try {
      Run(Tool(L"service stop") + kName);
      Run(Tool(L"service remove --force") + kName);
      RemoveData();
    } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch): tried again at the end
    }
  }

  static std::string Start() {
    Expect(Tool(L"service start") + kName);
    return Expect(Tool(L"exec 22 --service=VxAcceptance"), "getVersion");
  }
  static std::string Status() { return Run(Tool(L"service status --json") + kName).output; }
};

// Returns the service's process id, or an empty string if the service is not running.
std::string Process() {
  const std::string status = Service::Status();
  constexpr std::string_view kMember = "\"process\":";
  const std::size_t found = status.find(kMember);
  if (found == std::string::npos || status.find("\"running\"") == std::string::npos) return {};
  const std::size_t begin = found + kMember.size();
  return status.substr(begin, status.find_first_not_of("0123456789", begin) - begin);
}

// Kills the service's process. The failure actions restart the service after a minute.
void ExpectRestart() {
  const std::string process = Process();
  Expect(SystemProgram(L"taskkill.exe") + L" /f /pid " + Hosting::Wide(process));
  Require(Eventually(seconds(120),
                     [&] {
                       const std::string other = Process();
                       return !other.empty() && other != process;
                     }),
          "two minutes after its process was ended, Windows has not restarted it");
}

}  // namespace

std::string FailureIsInTheEventLog() {
  NeedsWindows("it keeps no event log");
  const Service service(Service::For::Use);
  const std::wstring missing = KitFile(L"missing.dll");
  Require(RegSetKeyValueW(HKEY_LOCAL_MACHINE, kParameters, L"Module", REG_SZ, missing.c_str(),
                          static_cast<DWORD>((missing.size() + 1) * sizeof(wchar_t))) == 0,
          "its module cannot be replaced");
  Require(Run(Tool(L"service start") + kName).code != 0, "it starts without its module");
  std::string event;
  // The text around the inserted strings comes from the message file.
  Require(Eventually(seconds(10),
                     [&] {
                       event = Expect(SystemProgram(L"wevtutil.exe") +
                                      L" qe Application /c:1 /rd:true /f:text "
                                      L"\"/q:*[System[Provider[@Name='VxAcceptance']]]\"");
                       return event.find("missing.dll") != std::string::npos &&
                              event.find("Provider: Vx-Host-Service") != std::string::npos;
                     }),
          "not with its text: " + event);
  return "the event names the missing module";
}

std::string ServiceLives() {
  NeedsFreePc();
  const Service service(Service::For::Use);
  std::string version = Service::Start();
  if (!IsWine()) {  // which has no failure actions
    ExpectRestart();
    Eventually(seconds(10), [] { return Run(Tool(L"exec 22 --service=VxAcceptance")).code == 0; });
    Expect(Tool(L"exec 22 --service=VxAcceptance"), "getVersion");
  }
  Expect(Tool(L"service stop") + kName, "is stopped");
  Expect(Tool(L"service remove") + kName, "is removed");
  Require(Service::Status().find("not installed") != std::string::npos, "it is still installed");
  return version;
}

std::string ProgramRunsAtTheConsole() {
  NeedsFreePc();
  const Service service(Service::For::Development);
  Service::Start();
  const std::wstring report = KitFile(L"program.out");
  const std::wstring file = KitFile(L"request.json");
  Hosting::WriteTextFile(file,
                         Utf8(LR"({"powerEventType":7,"eventAction":1,"commandParams":{"path":)" +
                              Hosting::Quoted(KitFile(L"pki\\pinned.exe")) + LR"(,"arguments":)" +
                              Hosting::Quoted(L"\"" + report + L"\"") + L"}}"));
  Expect(Tool(L"exec 9 --service=VxAcceptance \"@" + file + L"\""), "(stored)");
  Expect(Tool(L"service send --power 7") + kName);
  Require(Eventually(seconds(15), [&] { return Exists(report); }),
          "the subscribed program did not run within 15 s");
  const std::string seen = Utf8(Hosting::ReadTextFile(report));
  const auto has = [&](const std::string& line) {
    Require(seen.find(line + "\n") != std::string::npos, line + " is missing in: " + seen);
  };
  has("desktop=winsta0\\default");
  if (!IsWine()) has("account=S-1-5-18");
  has("session=" + std::to_string(WTSGetActiveConsoleSessionId()));
  return "in the console's session";
}

std::string PowerShellIsAnswered() {
  NeedsWindows("it has no PowerShell");
  NeedsFreePc();
  const Service service(Service::For::Use);
  Service::Start();
  return Expect(SystemProgram(L"WindowsPowerShell\\v1.0\\powershell.exe") +
                    L" -NoProfile -NonInteractive -ExecutionPolicy Bypass -Command \"& '" +
                    KitFile(L"clients\\vx_client.ps1") +
                    L"' -Id 22 -Request '{}' -Service VxAcceptance | ConvertTo-Json -Compress\"",
                "getVersion");
}

}  // namespace Vx::Acceptance
