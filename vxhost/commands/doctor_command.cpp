#include "vxhost/commands/doctor_command.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <windows.h>

#include "bod/vx_bios_wmi.h"
#include "companion/companion_apps.h"
#include "hosting/store_hold.h"
#include "hosting/text.h"
#include "launch/session_launch.h"
#include "platform/clock.h"
#include "platform/console_user.h"
#include "platform/environment.h"
#include "platform/machine.h"
#include "platform/packages.h"
#include "platform/processes.h"
#include "platform/system_services.h"
#include "security/file_trust.h"
#include "security/pinned_keys.h"
#include "servicehost/guarded_folder.h"
#include "servicehost/host_loop.h"
#include "servicehost/log_folder.h"
#include "servicehost/service_log.h"
#include "simulator/simulated_machine.h"
#include "storage/cap_data_store.h"
#include "vxhost/log/history.h"
#include "vxhost/store/store_look.h"
#include "vxhost/subscriptions/certificates.h"
#include "vxhost/subscriptions/module_pins.h"

namespace Vx::Hosting::Tool {

namespace {

namespace Orvane = Tessel::Server::Services::Orvane;
using Tessel::Server::Storage::CapDataStore;
using Tessel::Server::Storage::StoreState;

struct Options {
  std::string logFolder;
  HoldLimits limits;
};

// Finding: one of the module's capabilities does not work. Unusable: none does.
enum class Health { Good, Finding, Unusable };

struct Check {
  const char* what;
  Health health = Health::Good;
  std::wstring found;
  std::wstring expected = {};  // this and the advice are set only if `health` is not good
  std::wstring advice = {};
};

// Returns a good check, or a finding with what was expected and what to do.
Check MakeCheck(const char* what, bool good, std::wstring found, const wchar_t* expected,
                const wchar_t* advice) {
  Check check{.what = what, .found = std::move(found)};
  if (!good) {
    check.health = Health::Finding;
    check.expected = expected;
    check.advice = advice;
  }
  return check;
}

const Platform::Machine& Machine() {
  return Platform::CurrentMachine();
}

std::wstring Expanded(const wchar_t* text) {
  auto expanded = Machine().environment->Expand(text, Platform::kLongestPath);
  return expanded ? *std::move(expanded) : text;
}

std::wstring Code(std::uint32_t error) {
  return L"error " + std::to_wstring(error);
}

// Returns the version in a file's resource, "1.2.3.4", or empty if it has none.
std::wstring FileVersion(const std::wstring& path) {
  DWORD ignored = 0;
  std::vector<std::byte> block(GetFileVersionInfoSizeW(path.c_str(), &ignored));
  UINT length = 0;
  void* found = nullptr;
  if (block.empty() ||
      GetFileVersionInfoW(path.c_str(), 0, static_cast<DWORD>(block.size()), block.data()) == 0 ||
      VerQueryValueW(block.data(), L"\\", &found, &length) == 0) {
    return {};
  }
  const auto* info = static_cast<VS_FIXEDFILEINFO*>(found);
  return std::to_wstring(HIWORD(info->dwFileVersionMS)) + L"." +
         std::to_wstring(LOWORD(info->dwFileVersionMS)) + L"." +
         std::to_wstring(HIWORD(info->dwFileVersionLS)) + L"." +
         std::to_wstring(LOWORD(info->dwFileVersionLS));
}

Check ModuleFile(const std::wstring& path) {
  const std::wstring version = FileVersion(path);
  if (version.empty()) {
    return {.what = "module",
            .health = Health::Unusable,
            .found = path + L" is missing or has no version",
            .expected = L"the service module",
            .advice = L"install it, or name it with --dll"};
  }
  const std::wstring own = Wide(VX_VERSION);
  return MakeCheck("module", version == own, path + L", version " + version,
                   (L"version " + own + L", that of this tool").c_str(),
                   L"install both from one package");
}

constexpr std::int64_t kDaysToRenew = 30;

Check ModuleSignature(const std::wstring& path) {
  static constexpr char kWhat[] = "module's signature";
  constexpr wchar_t kExpected[] = L"a signature whose certificate is valid for a month more";
  const auto keys = Tessel::Security::PublicKeysOf(path);
  if (keys.empty()) {
    return MakeCheck(kWhat, false, path + L" has no signature that Windows can read", kExpected,
                     L"sign it before it is installed");
  }
  const auto certificates = CertificatesIn(path);
  const Certificate* certificate = CertificateOf(certificates, keys.front());
  if (certificate == nullptr) return {.what = kWhat, .found = L"signed by a catalog"};
  const std::uint64_t now = Machine().clock->UtcFileTime();
  return MakeCheck(kWhat, DaysLeft(*certificate, now) >= kDaysToRenew,
                   L"signed by " + certificate->subject + L", until " + Lifetime(*certificate, now),
                   kExpected, L"sign it anew: pin the new key as well if it is another one");
}

void Pins(const std::wstring& module, const std::optional<ModulePins>& pins,
          std::vector<Check>& checks) {
  constexpr wchar_t kAdvice[] = L"without keys nothing is trusted: build with the maker's";
  if (!pins) {
    checks.push_back(MakeCheck("pinned keys", false, L"the module's file lists none",
                               L"at least one of each set", kAdvice));
    return;
  }
  const std::size_t general = pins->General().size();
  const std::size_t restricted = pins->Restricted().size();
  checks.push_back(MakeCheck(
      "pinned keys", general != 0 && restricted != 0,
      std::to_wstring(general) + L" general, " + std::to_wstring(restricted) + L" restricted",
      L"at least one of each set", kAdvice));
  const auto keys = Tessel::Security::PublicKeysOf(module);
  if (keys.empty()) return;  // the signature check then reports a finding
  const auto isIn = [&](Tessel::Security::KeySet set) {
    return std::ranges::any_of(
        keys, [&](const std::string& key) { return std::ranges::find(set, key) != set.end(); });
  };
  const bool isRestricted = isIn(pins->Restricted());
  const bool pinned = isRestricted || isIn(pins->General());
  checks.push_back(MakeCheck("module's key", pinned,
                             !pinned        ? L"its signature's key is not among its pinned keys"
                             : isRestricted ? L"its signature's key is a restricted one"
                                            : L"its signature's key is a general one",
                             L"a module that is signed with a key that it pins",
                             L"compare vxhost pins with the maker's keys: another party may have "
                             L"signed it, or it was built with other keys"));
}

Check Folder(const std::wstring& folder) {
  const std::string why = ServiceHost::WhyWritable(folder, ServiceHost::Writers::System);
  return MakeCheck(
      "folder", why.empty(), why.empty() ? folder : Wide(why),
      L"a folder of SYSTEM or the administrators that users only read",
      L"create it at installation, so that no user can create it first: vxhost service "
      L"install --repair");
}

// Reads the store as "store verify" does, while no service can write it.
void Store(const HoldLimits& limits, std::vector<Check>& checks) {
  constexpr wchar_t kSound[] = L"a file that this machine can decrypt, and no other beside it";
  std::optional<StoreHold> hold;
  try {
    hold.emplace(StoreUse::Write, limits);
  } catch (const std::runtime_error& error) {
    checks.push_back(MakeCheck("store mutex", false, Wide(error.what()), L"free",
                               L"run as administrator, or find the program that keeps it: it stops "
                               L"every service"));
    checks.push_back(MakeCheck("store", false, L"not read while its mutex is taken", kSound,
                               L"as for the mutex"));
    return;
  }
  checks.push_back({.what = "store mutex", .found = L"free"});
  const StoreLook look = LookAtFile(CapDataStore::PathOfFile());
  const StoreVerdict verdict = DiagnoseWithLists(look);
  const bool good =
      look.siblings.empty() && (verdict.IsSound() || look.reading.state == StoreState::Missing);
  checks.push_back(
      MakeCheck("store", good,
                look.path + L": " + Wide(verdict.text) +
                    (look.siblings.empty() ? L"" : L"; beside it " + look.siblings.front()),
                kSound, L"run as administrator, or see \"Trouble\" in docs/operations.md"));
}

void ConsoleUser(std::vector<Check>& checks) {
  const std::uint32_t session = Machine().sessions->ActiveConsoleSession();
  if (session == Platform::kNoSession) {
    checks.push_back(MakeCheck("console", false, L"no session", L"a session with a user",
                               L"sign in at the machine: programs start in that session only"));
    return;
  }
  const auto user = Machine().sessions->QueryText(session, Platform::SessionText::UserName);
  checks.push_back(MakeCheck("console", user && !user->empty(),
                             L"session " + std::to_wstring(session) + L", user " +
                                 (user ? *user : L"unknown: " + Code(user.Error())),
                             L"a user", L"sign in at the machine"));
  const auto logon = Orvane::LogonProcessIn(session);
  const auto image = logon ? Machine().processes->ImagePath(*logon) : std::nullopt;
  checks.push_back(MakeCheck("logon process", image.has_value(), image.value_or(L"none is seen"),
                             L"winlogon.exe in the session of the console",
                             L"run as administrator, who may see it"));
}

Check FirstRun() {
  const auto state = Machine().oobe->Query();
  return MakeCheck("first-run set-up", state.known && state.complete,
                   !state.known     ? L"not reported"
                   : state.complete ? L"complete"
                                    : L"not complete",
                   L"complete", L"the service waits until Windows has finished its set-up");
}

Check Lockdown(Tessel::Security::KeySet keys) {
  const std::wstring path = Expanded(L"%windir%\\System32\\wldp.dll");
  const auto trust = Tessel::Security::VerifyFile(path, keys);
  return MakeCheck("lockdown library", trust.trusted,
                   path + (trust.trusted ? L", trusted" : L", not trusted"),
                   L"a library that is signed with a general key",
                   L"without it S mode is never noticed; see vxhost trust --general");
}

Check Package(const Orvane::CompanionApp& app) {
  const Platform::ActingReport ignored = [](auto, auto) {};
  auto found = Platform::AsConsoleUser(
      ignored, [&] { return Machine().packages->FindByFamily(app.packageFamilyName).fullNames; });
  if (found.empty()) found = Machine().packages->FindByFamily(app.packageFamilyName).fullNames;
  return MakeCheck("companion app", !found.empty(),
                   std::wstring(app.packageFamilyName) +
                       (found.empty() ? L" is not installed for the user" : L": " + found.front()),
                   L"installed for the user at the console",
                   L"install it, unless this machine is sold without it");
}

Check Firmware() {
  Tessel::Server::Shared::WMI::VxBiosWmi firmware;
  const bool ready = firmware.GetReady();
  return MakeCheck(
      "firmware", ready,
      ready ? L"its WMI namespace opens (its class is not asked)" : L"no WMI namespace",
      L"the maker's WMI provider", L"a machine of another maker keeps no born-on date");
}

// Checks that a part of Windows is present.
Check Part(const char* what, bool present, const wchar_t* advice) {
  return MakeCheck(what, present, present ? L"present" : L"absent", L"present", advice);
}

Check SessionPart() {
  return Part("session functions", Machine().apiSets->IsPresent(Platform::kSessionApiSet),
              L"this edition has no interactive users: nothing is started for them");
}

Check Triggers() {
  return Part(
      "custom triggers",
      GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlRaiseCustomSystemEventTrigger") != nullptr,
      L"this Windows raises no custom triggers: subscriptions with one only log a status");
}

// The number of power events in a service's log, and the last one. Clients choose other texts in a
// log, so only the service's own records count.
struct PowerEvents {
  std::size_t count = 0;
  std::wstring last;  // "power event 18 at 2026-01-02T03:04:05.678Z"
};

void CountPowerEvents(const std::filesystem::path& path, PowerEvents& events) {
  std::ifstream file(path, std::ios::binary);
  for (std::string line; std::getline(file, line);) {
    if (line.find(Utf8(kHostProvider)) == std::string::npos) continue;
    // Empty for the incomplete line of a killed process.
    const auto record = ParseHistoryLine(line);
    if (!record || record->line.provider != kHostProvider ||
        !record->line.message.starts_with(ServiceHost::kPowerForwarded)) {
      continue;
    }
    ++events.count;
    events.last = record->line.message + L" at " + record->time;
  }
}

Check Power(const std::string& folder) {
  if (folder.empty()) {
    return {.what = "power events",
            .found = L"not known: no log folder of a service is named with --log"};
  }
  const std::filesystem::path path = FullPath(folder);
  std::error_code error;
  static_cast<void>(std::filesystem::directory_iterator(path, error));
  if (error) throw std::runtime_error("cannot list " + folder + ": " + error.message());
  const std::vector<std::wstring> files = ServiceHost::LogFileNames(path.wstring());
  PowerEvents events;
  for (const std::wstring& file : files) CountPowerEvents(path / file, events);
  return MakeCheck("power events", events.count != 0,
                   events.count == 0 ? L"none in " + std::to_wstring(files.size()) + L" log files"
                                     : std::to_wstring(events.count) + L", the last " + events.last,
                   L"at least one", L"let the machine sleep and wake while the service runs");
}

std::vector<Check> Examine(const std::wstring& module, const Options& options) {
  std::optional<ModulePins> pins;
  try {
    pins.emplace(module);
  } catch (const std::runtime_error&) {
    pins.reset();  // its check reports that
  }
  std::vector<Check> checks;
  checks.push_back(ModuleFile(module));
  checks.push_back(ModuleSignature(module));
  Pins(module, pins, checks);
  checks.push_back(Folder(Expanded(L"%ProgramData%\\Vx")));
  Store(options.limits, checks);
  ConsoleUser(checks);
  checks.push_back(FirstRun());
  checks.push_back(Lockdown(pins ? pins->General() : Tessel::Security::KeySet()));
  for (const auto& app : {Orvane::kQubo, Orvane::kAurelo}) checks.push_back(Package(app));
  checks.push_back(Firmware());
  checks.push_back(SessionPart());
  checks.push_back(Triggers());
  checks.push_back(Power(options.logFolder));
  return checks;
}

const char* Name(Health health) {
  static constexpr const char* kNames[] = {"ok", "finding", "unusable"};  // in the enum's order
  return kNames[static_cast<std::size_t>(health)];
}

void PrintText(const std::vector<Check>& checks, Console& console) {
  for (const Check& check : checks) {
    console.Line(std::string(check.health == Health::Good ? "  +  " : "  -  ") + check.what + ": " +
                 Utf8(check.found));
    if (check.health == Health::Good) continue;
    console.Line("       expected: " + Utf8(check.expected));
    console.Line("       do: " + Utf8(check.advice));
  }
}

void PrintJson(const std::vector<Check>& checks, Console& console) {
  std::vector<JsonRow> rows;
  rows.reserve(checks.size());
  for (const Check& check : checks) {
    rows.push_back({{L"check", std::string(check.what)},
                    {L"health", std::string(Name(check.health))},
                    {L"found", check.found},
                    {L"expected", check.expected},
                    {L"advice", check.advice}});
  }
  console.JsonResult(JsonRow::TextOf(rows));
}

int Doctor(const CommandLine& line, const Options& options, Console& console) {
  const ModuleOptions& module = line.Module();
  if (module.privateStore) throw std::runtime_error("doctor examines the store of the machine");
  std::optional<Simulator::SimulatedMachine> simulated;
  std::optional<Platform::MachineScope> scope;
  if (module.simulate) {
    simulated.emplace();
    scope.emplace([&](Platform::Machine& machine) { simulated->Install(machine); });
  }
  const auto checks = Examine(module.Path(), options);
  if (line.Json()) {
    PrintJson(checks, console);
  } else {
    PrintText(checks, console);
  }
  const auto worst = std::ranges::max_element(checks, {}, &Check::health)->health;
  return worst == Health::Good ? kDone : worst == Health::Finding ? kNotMet : kUnusable;
}

constexpr char kFooter[] =
    "Only looks: it changes nothing, starts nothing and creates nothing.\n"
    "Exit code 0: everything is in order; 1: findings; 2: the module cannot be used.\n"
    "  vxhost doctor\n"
    "  vxhost doctor --json > report.json";

}  // namespace

void AddDoctorCommand(CommandLine& line) {
  const auto options = std::make_shared<Options>();
  CLI::App& doctor =
      line.Add("doctor", "examine whether this machine has what the module needs", kFooter,
               [&line, options](Console& console) { return Doctor(line, *options, console); });
  doctor.add_option("--log", options->logFolder,
                    "the log folder of a service that runs on this machine");
  CommandLine::AddTimeout(doctor, options->limits);
  line.UseModule(doctor);
  line.OfferJson(doctor);
}

}  // namespace Vx::Hosting::Tool
