#include <chrono>
#include <stdexcept>
#include <string>

#include <windows.h>

#include "acceptance/kit.h"
#include "hosting/text.h"
#include "servicehost/service_parameters.h"
#include "vxhost/service/service_manager.h"

namespace Vx::Acceptance {

namespace {

using Hosting::Tool::ServiceManager;
using std::chrono::seconds;

constexpr wchar_t kName[] = L" --name VxAcceptance";
constexpr wchar_t kParameters[] = LR"(SYSTEM\CurrentControlSet\Services\VxAcceptance\Parameters)";
constexpr wchar_t kAsk[] = L"exec 22 --service=VxAcceptance";
constexpr wchar_t kDevelopment[] = L" --development";

// Installs the service without starting it. Under Wine, no folder belongs to the administrators, as
// it must outside development.
void Install(Firmware firmware, const wchar_t* options = IsWine() ? kDevelopment : L"") {
  ClaimFreePc(firmware);
  Expect(Tool(L"service install --start demand") + kName + options, "is installed");
}

std::string Start() {
  Expect(Tool(L"service start") + kName);
  return Expect(Tool(kAsk), "getVersion");
}

// Kills the service's process. The failure actions restart the service after a minute.
void ExpectRestart() {
  const DWORD process = Hosting::Tool::ProcessOfService(kKitName);
  Expect(SystemProgram(L"taskkill.exe") + L" /f /pid " + std::to_wstring(process));
  Require(Eventually(seconds(120),
                     [&] {
                       const auto now = ServiceManager().Query(kKitName);
                       return now && now->state == SERVICE_RUNNING && now->process != process;
                     }),
          "two minutes after its process was ended, Windows has not restarted it");
  Require(Eventually(seconds(10), [] { return Run(Tool(kAsk)).code == 0; }),
          "it does not answer after its restart");
}

}  // namespace

std::string FailureIsInTheEventLog() {
  NeedsWindows("it keeps no event log");
  Install(Firmware::Untouched);
  // The failure must not make Windows restart the service while the next rows install it again.
  Expect(SystemProgram(L"sc.exe") + L" failureflag VxAcceptance 0");
  // Unlike any name in the events of earlier runs.
  const std::wstring name = L"missing" + std::to_wstring(GetTickCount64()) + L".dll";
  const std::wstring missing = KitFile(name.c_str());
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
                       return event.find(Hosting::Utf8(name)) != std::string::npos &&
                              event.find("Provider: Vx-Host-Service") != std::string::npos;
                     }),
          "not with its text: " + event);
  return "the event names the missing module";
}

std::string ServiceLives() {
  Install(Firmware::AtStake);
  std::string version = Start();
  if (!IsWine()) ExpectRestart();  // which has no failure actions
  Expect(Tool(L"service stop") + kName, "is stopped");
  Expect(Tool(L"service remove") + kName, "is removed");
  Require(Eventually(seconds(20), [] { return !ServiceManager().Query(kKitName); }),
          "it is still installed");
  return version;
}

std::string ProgramRunsAtTheConsole() {
  Install(Firmware::AtStake, kDevelopment);
  Start();
  const std::wstring report = KitFile(L"program.out");
  Expect(Tool(Subscribing(7, KitFile(L"pki\\pinned.exe"), report)) + L" --service=VxAcceptance",
         "added");
  Expect(Tool(L"service send --power 7") + kName);
  // Windows may first take up to 15 seconds to download its list of trusted roots.
  std::string seen;
  Require(
      Eventually(seconds(IsWine() ? 15 : 60), [&] { return !(seen = ContentOf(report)).empty(); }),
      "the subscribed program did not run within a minute");
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
  Install(Firmware::AtStake);
  Start();
  // PowerShell 7, if it started the kit, has put its own modules there, which this one cannot load:
  // https://learn.microsoft.com/powershell/module/microsoft.powershell.core/about/about_psmodulepath
  SetEnvironmentVariableW(L"PSModulePath", nullptr);
  try {
    return Expect(SystemProgram(L"WindowsPowerShell\\v1.0\\powershell.exe") +
                      L" -NoProfile -NonInteractive -ExecutionPolicy Bypass -Command \"& '" +
                      KitFile(L"clients\\vx_client.ps1") +
                      L"' -Id 22 -Request '{}' -Service VxAcceptance | ConvertTo-Json -Compress\"",
                  "getVersion");
  } catch (const std::runtime_error& error) {
    // Group policy overrides the argument, or App Control allows no type that the script adds. The
    // names of these errors are the same in any language.
    const std::string text = error.what();
    for (const char* name : {"PSSecurityException", "CannotDefineNewType"}) {
      if (text.find(name) != std::string::npos) {
        throw NotTried("a policy of this PC forbids PowerShell scripts");
      }
    }
    throw;
  }
}

void RemoveService() {
  ServiceManager services;
  if (services.Query(kKitName)) {
    try {
      services.Stop(kKitName);
    } catch (const std::runtime_error&) {  // its module hangs, for example
      const auto now = services.Query(kKitName);
      if (now && now->process != 0) {
        Run(SystemProgram(L"taskkill.exe") + L" /f /pid " + std::to_wstring(now->process));
      }
    }
    try {
      services.Remove(kKitName, ServiceManager::Running::Marked);
    } catch (const Hosting::WindowsError& error) {
      if (error.Code() != ERROR_SERVICE_MARKED_FOR_DELETE) throw;
    }
    // Windows may keep the service until a restart that it has planned for it, for a minute.
    Require(Eventually(seconds(75), [&] { return !services.Query(kKitName); }),
            "the service VxAcceptance is still installed");
  }
  // An installation may have been killed before it was complete, and a removal too.
  Hosting::ServiceHost::RemoveEventSource(kKitName);
}

}  // namespace Vx::Acceptance
