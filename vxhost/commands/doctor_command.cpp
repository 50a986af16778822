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
#include "servicehost/power_notifications.h"
#include "simulator/simulated_machine.h"
#include "storage/cap_data_store.h"
#include "vxhost/commands/history_command.h"
#include "vxhost/log/history.h"
#include "vxhost/service/pipe_client.h"
#include "vxhost/service/service_manager.h"
#include "vxhost/store/store_look.h"
#include "vxhost/subscriptions/certificates.h"
#include "vxhost/subscriptions/explanation.h"
#include "vxhost/subscriptions/module_pins.h"

namespace Vx::Hosting::Tool {

namespace {

namespace Orvane = Tessel::Server::Services::Orvane;
using Tessel::Server::Storage::CapDataStore;
using Tessel::Server::Storage::StoreState;

struct Options {
  std::string name = kDefaultServiceName;
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

// Checks the module at `path`, which is that of a service or else the one that the tool uses.
Check ModuleFile(const std::wstring& path, const char* what, const wchar_t* advice) {
  const std::wstring version = FileVersion(path);
  if (version.empty()) {
    return {.what = what,
            .health = Health::Unusable,
            .found = path + L" is missing or has no version",
            .expected = L"the service module",
            .advice = L"install it, or name it: vxhost --dll MODULE"};
  }
  const std::wstring own = Wide(VX_VERSION);
  return MakeCheck(what, version == own, path + L", version " + version,
                   (L"version " + own + L", that of this tool").c_str(), advice);
}

constexpr std::int64_t kDaysToRenew = 30;

Check ModuleSignature(const std::wstring& path) {
  static constexpr char kWhat[] = "module's signature";
  constexpr wchar_t kExpected[] = L"a signature whose certificate is valid for a month more";
  const auto keys = Tessel::Security::PublicKeysOf(path);
  if (keys.empty()) {
    return MakeCheck(kWhat, false, path + L" has no signature that Windows can read", kExpected,
                     L"sign it before it is installed: signtool sign /fd SHA256 FILE");
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
  constexpr wchar_t kAdvice[] =
      L"nothing is trusted: build it with -DVX_PINNED_KEYS_GENERAL=FILE and "
      L"-DVX_PINNED_KEYS_RESTRICTED=FILE";
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
                             L"another party may have signed it, or it was built with other "
                             L"keys: compare them with the maker's: vxhost pins"));
}

Check Folder(const std::wstring& folder) {
  const std::string why = ServiceHost::WhyWritable(folder, ServiceHost::Writers::System);
  return MakeCheck(
      "folder", why.empty(), why.empty() ? folder : Wide(why),
      L"a folder of SYSTEM or the administrators that users only read",
      L"create it at installation, so that no user can create it first: vxhost service "
      L"install --repair");
}

// One line for each stored subscription, judged as "subscriptions" does.
void Subscriptions(const StoreLook& look, Tessel::Security::KeySet keys,
                   std::vector<Check>& checks) {
  for (const Explanation& one : Explain(SubscriptionsIn(DocumentOf(look)), {}, keys)) {
    const std::wstring number = std::to_wstring(one.subscription.number);
    std::wstring found = number;
    for (const std::wstring& part : {one.subscription.hash, one.event, one.action}) {
      if (!part.empty()) found += L" " + part;
    }
    for (const std::wstring& reason : one.reasons) found += L"; " + reason;
    checks.push_back(MakeCheck("subscription", one.fate == Fate::Runs, found,
                               L"a subscription that would run",
                               (L"remove what is in its way, see vxhost explain --all, or take it "
                                L"back: vxhost subscriptions remove " +
                                number)
                                   .c_str()));
  }
}

// Reads the store as "store verify" does, while no service can write it.
void Store(const HoldLimits& limits, Tessel::Security::KeySet keys, std::vector<Check>& checks) {
  constexpr wchar_t kSound[] = L"a file that this machine can decrypt, and no other beside it";
  std::optional<StoreLook> look;
  try {
    const StoreHold hold(StoreUse::Write, limits);
    look = LookAtFile(CapDataStore::PathOfFile());
  } catch (const std::runtime_error& error) {
    checks.push_back(MakeCheck("store mutex", false, Wide(error.what()), L"free",
                               L"run as administrator, or end the program that keeps it, which "
                               L"stops every service: vxhost service stop"));
    checks.push_back(MakeCheck("store", false, L"not read while its mutex is taken", kSound,
                               L"as for the mutex"));
    return;
  }
  checks.push_back({.what = "store mutex", .found = L"free"});
  const StoreVerdict verdict = DiagnoseWithLists(*look);
  // "store restore" and "store import" keep the store that they replace.
  std::erase_if(look->siblings, [&](const std::wstring& path) {
    return path.starts_with(look->path + L".replaced-");
  });
  const bool readable = verdict.IsSound() || look->reading.state == StoreState::Missing;
  checks.push_back(
      MakeCheck("store", readable && look->siblings.empty(),
                look->path + L": " + Wide(verdict.text) +
                    (look->siblings.empty() ? L"" : L"; beside it " + look->siblings.front()),
                kSound,
                readable ? L"run as administrator, or delete what is beside it: vxhost store verify"
                         : L"run as administrator, or put a copy in its place: vxhost store "
                           L"restore COPY"));
  if (verdict.IsSound()) Subscriptions(*look, keys, checks);
}

// Checks the installed service: its process, its module and its pipe.
void Service(const std::string& name, std::vector<Check>& checks) {
  static constexpr char kWhat[] = "service";
  const std::wstring wide = Wide(name);
  try {
    const auto report = ServiceManager().Query(wide);
    const bool running = report && report->state == SERVICE_RUNNING;
    const std::wstring state = !report   ? L" is not installed"
                               : running ? L" runs as process " + std::to_wstring(report->process)
                                         : L" does not run, " + Code(report->exitCode);
    checks.push_back(MakeCheck(
        kWhat, running, wide + state, L"a service that runs",
        ((report ? L"vxhost service start --name " : L"vxhost service install --name ") + wide)
            .c_str()));
    if (!report) return;
    checks.push_back(ModuleFile(report->options.module, "service's module",
                                (L"vxhost service install --replace --name " + wide).c_str()));
    if (!running) return;
    constexpr std::uint32_t kVersion = 22;
    const auto result = ConnectToService(wide, report->process).Execute({kVersion, L"{}"});
    checks.push_back(
        {.what = "service's pipe", .found = L"answers " + result.response.value_or(L"nothing")});
  } catch (const std::runtime_error& error) {
    checks.push_back(
        MakeCheck(kWhat, false, Wide(error.what()), L"a service that answers",
                  (L"run as administrator, or vxhost service status --name " + wide).c_str()));
  }
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
                             L"run as administrator, who may see it: vxhost doctor"));
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
                   (L"without it S mode is never noticed: vxhost trust --general " + path).c_str());
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
                   L"install it, unless this machine is sold without it: Add-AppxPackage FILE");
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

// What a service's logs say. Clients choose other texts in a log, so only the service's own lines
// count.
struct LogSummary {
  std::size_t powerEvents = 0;
  std::wstring lastPower;  // "power event 18 at 2026-01-02T03:04:05.678Z"
  std::wstring lastError;  // in the same form
  bool startedSince = false;
};

void Read(const std::filesystem::path& path, LogSummary& summary) {
  std::ifstream file(path, std::ios::binary);
  for (std::string line; std::getline(file, line);) {
    if (line.find(Utf8(kHostProvider)) == std::string::npos) continue;
    // Empty for the incomplete line of a killed process.
    const auto record = ParseHistoryLine(line);
    if (!record || record->line.provider != kHostProvider) continue;
    const std::wstring text = record->line.message + L" at " + record->time;
    if (PowerCodeIn(record->line)) {
      ++summary.powerEvents;
      summary.lastPower = text;
    }
    if (record->line.level == L"ERROR") {
      summary.lastError = text;
      summary.startedSince = false;
    }
    if (StartsModule(record->line)) summary.startedSince = true;
  }
}

void Log(const std::string& folder, std::vector<Check>& checks) {
  constexpr wchar_t kAdvice[] = L"start the service, as administrator: vxhost service start";
  const std::filesystem::path path = LogFolderOf(folder);
  std::vector<std::filesystem::path> files;
  try {
    files = LogFilesIn(path);
  } catch (const std::runtime_error& error) {
    checks.push_back(
        MakeCheck("log folder", false, Wide(error.what()), L"the log of a service", kAdvice));
    return;
  }
  LogSummary summary;
  for (const auto& file : files) Read(file, summary);
  checks.push_back({.what = "log folder",
                    .found = path.wstring() + L", " + std::to_wstring(files.size()) + L" files"});
  checks.push_back(MakeCheck("last error", summary.lastError.empty() || summary.startedSince,
                             summary.lastError.empty() ? L"none" : summary.lastError,
                             L"none since the last start",
                             L"see what happened then: vxhost history"));
  checks.push_back(
      MakeCheck("power events", summary.powerEvents != 0,
                summary.powerEvents == 0
                    ? L"none in " + std::to_wstring(files.size()) + L" log files"
                    : std::to_wstring(summary.powerEvents) + L", the last " + summary.lastPower,
                L"at least one",
                L"let the machine sleep and wake while the service runs: vxhost watch --service"));
}

std::vector<Check> Examine(const ModuleOptions& which, const Options& options) {
  const std::wstring module = which.Path();
  std::optional<ModulePins> pins;
  try {
    pins.emplace(module);
  } catch (const std::runtime_error&) {
    pins.reset();  // its check reports that
  }
  std::vector<Check> checks;
  checks.push_back(ModuleFile(module, "module",
                              L"install both from one package: vxhost service install --replace"));
  checks.push_back(ModuleSignature(module));
  Pins(module, pins, checks);
  checks.push_back(Folder(Expanded(L"%ProgramData%\\Vx")));
  Store(options.limits, pins ? pins->Restricted() : Tessel::Security::KeySet(), checks);
  ConsoleUser(checks);
  checks.push_back(FirstRun());
  checks.push_back(Lockdown(pins ? pins->General() : Tessel::Security::KeySet()));
  for (const auto& app : {Orvane::kQubo, Orvane::kAurelo}) checks.push_back(Package(app));
  checks.push_back(Firmware());
  checks.push_back(SessionPart());
  checks.push_back(Triggers());
  if (which.simulate) return checks;
  checks.push_back({.what = "standby",
                    .found = ServiceHost::HasModernStandby()
                                 ? L"Modern Standby, which ends the wait of a delivery"
                                 : L"no Modern Standby"});
  Service(options.name, checks);
  Log(options.logFolder, checks);
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
  const auto checks = Examine(module, options);
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
  doctor.add_option("--name", options->name, "the name of the service")->capture_default_str();
  doctor.add_option("--log", options->logFolder,
                    "a folder of logs; by default that of the installed service");
  CommandLine::AddTimeout(doctor, options->limits);
  line.UseModule(doctor);
  line.OfferJson(doctor);
}

}  // namespace Vx::Hosting::Tool
