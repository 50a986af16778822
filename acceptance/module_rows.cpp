#include <filesystem>
#include <initializer_list>

#include <windows.h>

#include "acceptance/kit.h"
#include "hosting/text.h"

namespace Vx::Acceptance {

namespace {

using Hosting::Utf8;

constexpr int kEvent = 10;  // PBT_APMPOWERSTATUSCHANGE, which triggers nothing else
constexpr wchar_t kReport[] = L".out";

// Delivers an event for each program. Checks that `refused` do not run and that `allowed` does.
void ExpectRefused(const wchar_t* store, std::initializer_list<std::wstring> refused,
                   const std::wstring& allowed = {}) {
  const std::wstring tool = ToolWithStore(store);
  const auto subscribe = [&](const std::wstring& program) {
    Expect(tool + Subscribing(kEvent, program, program + kReport), "added");
  };
  for (const std::wstring& program : refused) subscribe(program);
  if (!allowed.empty()) subscribe(allowed);
  // Windows may first take up to 15 seconds to download its list of trusted roots.
  const std::string seen =
      Expect(tool + L"events --power 10 --seconds " + (IsWine() ? L"3" : L"60"));
  for (const std::wstring& program : refused) {
    Require(seen.find(Utf8(program) + " not trusted to launch as system") != std::string::npos,
            Utf8(program) + " is not refused: " + seen);
  }
  if (allowed.empty() || Exists(allowed + kReport)) return;
  if (seen.find("Windows refused (status 0x00000005)") != std::string::npos) NeedsOtherSessions();
  Require(false, Utf8(allowed) + " did not run: " + seen);
}

}  // namespace

std::string UnknownAuthorityIsRefused() {
  NeedsWindows("it verifies a signature whose authority is unknown");
  ExpectRefused(L"unknown", {KitFile(L"pki\\pinned.exe")});
  return "refused";
}

std::string ModuleAnswers() {
  // A user cannot write to the kit's folder. This command writes nothing anywhere.
  return Expect(Tool(L"--store " + InQuotes(ProgramData(kKitName)) + L" exec 22"), "getVersion");
}

std::string MicrosoftsAbiWorks() {
  return Expect(InQuotes(KitFile(L"bin\\msvc_host.exe")), "passed");
}

std::string SlotsWork() {
  ClaimFreePc(Firmware::Untouched);
  // If this program is installed, the module does not set the born-on date.
  const std::wstring marker = KitFile(LR"(data\Vx\Vx Lumo Tessel\VxLumoTessel.exe)");
  std::filesystem::create_directories(std::filesystem::path(marker).parent_path());
  Hosting::WriteTextFile(marker, "");
  for (const wchar_t* variable : {L"ProgramData", L"ProgramFiles(x86)"}) {
    SetEnvironmentVariableW(variable, KitFile(L"data").c_str());
  }
  return Expect(InQuotes(KitFile(L"tests\\slots_test.exe")), "passed");
}

std::string SubscriptionIsKept() {
  const std::wstring tool = ToolWithStore(L"kept");
  Expect(tool + Subscribing(kEvent, KitFile(L"none.exe"), KitFile(L"none.out")), "added");
  Expect(tool + L"exec 20", "none.exe");
  Expect(tool + L"subscriptions remove 1", "removed");
  Require(Expect(tool + L"exec 20").find("none.exe") == std::string::npos,
          "the removed subscription is still listed");
  return "stored, listed and removed";
}

std::string OnlyPinnedProgramsRun() {
  const std::wstring pinned = KitFile(L"pki\\pinned.exe");
  const std::wstring elsewhere = ProgramData(kKitName) + L"\\elsewhere.exe";
  std::filesystem::copy_file(pinned, elsewhere);
  ExpectRefused(L"trust",
                {elsewhere, KitFile(L"pki\\unpinned.exe"), KitFile(L"pki\\tampered.exe"),
                 KitFile(L"pki\\unsigned.exe")},
                pinned);
  return "one ran, four were refused";
}

// Command 0 verifies wldp.dll, which has no pinned key.
std::string CatalogIsVerified() {
  NeedsWindows("it has no wldp.dll of Microsoft");
  Expect(ToolWithStore(L"catalog") + L"exec 0", "trusted by windows = yes, trusted by Zephra = no");
  return "trusted by Windows, and without a pinned key";
}

std::string BornOnDateIsSet() {
  if (!Exists(KitFile(kFirmwareNote)))
    throw NotTried("nothing can undo it, so only --firmware allows it");
  if (!BornOnDateInFirmware()) throw NotTried("this PC has no such firmware");
  std::string seen = Run(ToolWithStore(L"date") + L"exec 18").output;
  if (seen.find("Tessel is installed") != std::string::npos) {
    throw NotTried("the maker's program on this PC sets it");
  }
  Require(seen.find("successfully wrote born on date") != std::string::npos, seen);
  return seen;
}

}  // namespace Vx::Acceptance
