#include "vxhost/commands/commands.h"

#include <algorithm>
#include <optional>
#include <stdexcept>

#include <windows.h>

#include "bod/vx_bios_wmi.h"
#include "companion/companion_apps.h"
#include "hosting/loaded_module.h"
#include "hosting/store_hold.h"
#include "hosting/text.h"
#include "launch/launcher.h"
#include "platform/clock.h"
#include "platform/console_user.h"
#include "platform/environment.h"
#include "platform/machine.h"
#include "platform/packages.h"
#include "platform/processes.h"
#include "platform/system_services.h"
#include "records/record.h"
#include "security/file_trust.h"
#include "security/pinned_keys.h"
#include "servicehost/accounts.h"
#include "servicehost/guarded_folder.h"
#include "servicehost/power_notifications.h"
#include "simulator/simulated_machine.h"
#include "storage/cap_data_store.h"
#include "vxhost/service/pipe_client.h"
#include "vxhost/service/service_manager.h"
#include "vxhost/store/store.h"
#include "vxhost/subscriptions/explanation.h"
#include "vxhost/subscriptions/signing_keys.h"

namespace Vx::Hosting::Tool {

namespace {

namespace Orvane = Tessel::Server::Services::Orvane;
using Tessel::Server::Records::Kind;
using Tessel::Server::Storage::CapDataStore;
using Tessel::Server::Storage::StoreState;

struct Options {
  std::string name = kDefaultServiceName;
  std::string logFolder;
};

// The results so far, as JSON and as text.
struct Checks {
  std::vector<JsonRow> rows;
  std::vector<std::string> lines;
  ExitCode worst = kDone;

  // Adds a passed check or, unless `good`, a finding with the expected state and advice. A finding
  // means that one feature of the module does not work or, with kUnusable, that none does.
  void Add(const std::string& what, bool good, const std::wstring& found,
           const std::wstring& expected = {}, const std::wstring& advice = {},
           ExitCode severity = kNotMet) {
    const std::wstring health = severity == kUnusable ? L"unusable" : L"finding";
    rows.push_back({{L"check", what},
                    {L"health", good ? L"ok" : health},
                    {L"found", found},
                    {L"expected", good ? L"" : expected},
                    {L"advice", good ? L"" : advice}});
    lines.push_back((good ? "  +  " : "  -  ") + what + ": " +
                    ServiceHost::WithAccountNames(Utf8(found)));
    if (good) return;
    lines.push_back("       expected: " + Utf8(expected));
    lines.push_back("       do: " + Utf8(advice));
    worst = std::max(worst, severity);
  }
};

const Platform::Machine& Machine() {
  return Platform::CurrentMachine();
}

std::wstring Expanded(const wchar_t* text) {
  return Machine().environment->Expand(text, Platform::kLongestPath).ValueOr(text);
}

// Returns the version in a file's resource, such as "1.2.3.4", or "" if it has none.
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
  const auto text = [](DWORD part) {
    return std::to_wstring(HIWORD(part)) + L"." + std::to_wstring(LOWORD(part));
  };
  return text(info->dwFileVersionMS) + L"." + text(info->dwFileVersionLS);
}

// Checks the module of a service, or the one that the tool uses.
void ModuleFile(const std::wstring& path, const char* what, const wchar_t* advice, Checks& checks) {
  const std::wstring version = FileVersion(path);
  if (version.empty()) {
    return checks.Add(what, false, path + L" is missing or has no version", L"the service module",
                      L"install it, or name it: vxhost --dll MODULE", kUnusable);
  }
  if (const std::string why = WhyNoModule(path); !why.empty()) {
    return checks.Add(what, false, path + L" " + Wide(why), L"a module that Windows can load",
                      L"install the delivery again, then vxhost service install --replace",
                      kUnusable);
  }
  const std::wstring own = Wide(VX_VERSION);
  checks.Add(what, version == own, path + L", version " + version,
             L"version " + own + L", that of this tool", advice);
}

void ModuleSignature(const std::wstring& path, Checks& checks) {
  static constexpr char kWhat[] = "module's signature";
  constexpr wchar_t kExpected[] = L"a signature whose certificate is valid for a month more";
  constexpr wchar_t kAdvice[] = L"sign it, and pin a new key: signtool sign /fd SHA256 FILE";
  constexpr std::int64_t kDaysToRenew = 30;
  const auto keys = Tessel::Security::PublicKeysOf(path);
  if (keys.empty()) {
    return checks.Add(kWhat, false, path + L" has no signature that Windows can read", kExpected,
                      kAdvice);
  }
  const auto certificates = CertificatesIn(path);
  const Certificate* certificate = CertificateOf(certificates, keys.front());
  const std::uint64_t now = Machine().clock->UtcFileTime();
  checks.Add(kWhat, certificate == nullptr || DaysLeft(*certificate, now) >= kDaysToRenew,
             certificate == nullptr
                 ? L"signed by a catalog"
                 : L"signed by " + certificate->subject + L", until " + Lifetime(*certificate, now),
             kExpected, kAdvice);
}

void Pins(const std::wstring& module, const std::optional<ModulePins>& pins, Checks& checks) {
  const std::size_t general = pins ? pins->General().size() : 0;
  const std::size_t restricted = pins ? pins->Restricted().size() : 0;
  checks.Add(
      "pinned keys", general != 0 && restricted != 0,
      pins ? std::to_wstring(general) + L" general, " + std::to_wstring(restricted) + L" restricted"
           : L"the module's file contains none",
      L"at least one of each set",
      L"nothing is trusted: build it with -DVX_PINNED_KEYS_GENERAL=FILE and "
      L"-DVX_PINNED_KEYS_RESTRICTED=FILE");
  const auto keys = Tessel::Security::PublicKeysOf(module);
  if (!pins || keys.empty()) return;  // the signature check then reports a finding
  const auto isIn = [&](Tessel::Security::KeySet set) {
    return std::ranges::find_first_of(keys, set) != keys.end();
  };
  const bool isRestricted = isIn(pins->Restricted());
  const bool pinned = isRestricted || isIn(pins->General());
  checks.Add("module's key", pinned,
             !pinned        ? L"its signature's key is not among its pinned keys"
             : isRestricted ? L"its signature's key is a restricted one"
                            : L"its signature's key is a general one",
             L"a module that is signed with a key that it pins",
             L"another party may have signed it, or it was built with other keys: compare them "
             L"with the maker's: vxhost pins");
}

// Adds a check for each stored subscription, with the verdict that "subscriptions" shows.
void Subscriptions(const StoreLook& look, Tessel::Security::KeySet keys, Checks& checks) {
  for (const Explanation& one : Explain(SubscriptionsOf(look), {}, keys)) {
    const std::wstring number = std::to_wstring(one.subscription.number);
    std::wstring found = number;
    for (const std::wstring& part : {one.subscription.hash, one.event, one.action}) {
      if (!part.empty()) found += L" " + part;
    }
    for (const std::wstring& reason : one.reasons) found += L"; " + reason;
    checks.Add(
        "subscription", one.fate == Fate::Runs, found, L"a subscription that would run",
        one.subscription.text
            ? L"fix the cause, or remove it: vxhost subscriptions remove " + number
            : L"it is not a subscription, and the others still run: vxhost store restore COPY");
  }
}

// Reads the store as "store verify" does, while no service can write to it.
void Store(const HoldLimits& limits, Tessel::Security::KeySet keys, Checks& checks) {
  constexpr wchar_t kSound[] =
      L"a file that this machine can decrypt, and no other file next to it";
  std::optional<StoreLook> look;
  try {
    const StoreHold hold(StoreUse::Write, limits);
    look = LookAtFile(CapDataStore::PathOfFile());
  } catch (const std::runtime_error& error) {
    checks.Add("store mutex", false, Wide(error.what()), L"free",
               L"run as administrator, or end the program that holds it, which blocks every "
               L"service: vxhost service stop");
    return checks.Add("store", false, L"not read while its mutex is taken", kSound,
                      L"see the store mutex");
  }
  checks.Add("store mutex", true, L"free");
  const StoreVerdict verdict = Diagnose(*look);
  // "store restore" and "store import" keep the store that they replace.
  std::erase_if(look->siblings, [&](const std::wstring& path) {
    return path.starts_with(look->path + L".replaced-");
  });
  const bool readable = verdict.IsSound() || look->reading.state == StoreState::Missing;
  checks.Add("store", readable && look->siblings.empty(),
             look->path + L": " + Wide(verdict.text) +
                 (look->siblings.empty() ? L"" : L"; next to it " + look->siblings.front()),
             kSound,
             readable ? L"run as administrator, or delete the file next to it: vxhost store verify"
             : look->reading.state == StoreState::Linked
                 ? L"delete the link or the second name: fsutil hardlink list " + look->path
                 : L"run as administrator, or replace it: vxhost store restore COPY");
  if (verdict.IsSound()) Subscriptions(*look, keys, checks);
}

// Checks the installed service: its process, its module and its pipe.
void Service(const std::string& written, Checks& checks) {
  const std::wstring name = Wide(written);
  try {
    const auto report = ServiceManager().Query(name);
    const bool running = report && report->state == SERVICE_RUNNING;
    checks.Add(
        "service", running,
        name + (!report   ? L" is not installed"
                : running ? L" runs as process " + std::to_wstring(report->process)
                          : L" is not running, error " + std::to_wstring(report->exitCode)),
        L"a service that runs",
        (report ? L"vxhost service start --name " : L"vxhost service install --name ") + name);
    if (!report) return;
    const std::wstring advice = L"vxhost service install --replace --name " + name;
    ModuleFile(report->options.module, "service's module", advice.c_str(), checks);
    const std::string open = ServiceHost::WhyUnguarded(
        report->options.module,
        report->options.development ? ServiceHost::Writers::Account : ServiceHost::Writers::System);
    checks.Add("service's folder", open.empty(),
               open.empty() ? L"only administrators write to it" : Wide(open),
               L"a folder that only administrators write to",
               L"take the right from the account: icacls FOLDER /remove ACCOUNT");
    if (!running) return;
    constexpr std::uint32_t kVersion = 22;
    const auto result = ConnectToService(name).Execute({kVersion, L"{}"});
    checks.Add("service's pipe", true, L"answers " + result.text.value_or(L"nothing"));
  } catch (const std::runtime_error& error) {
    checks.Add("service's pipe", false, Wide(error.what()), L"a service that answers",
               L"run as administrator, or restart it: vxhost service stop --name " + name);
  }
}

// Checks the service's own lines in its logs. Clients influence the text of other lines.
void Log(const std::string& named, Checks& checks) {
  const std::filesystem::path folder = LogFolderOf(named);
  std::wstring count;
  std::size_t events = 0;
  std::wstring lastError;
  std::wstring proof;
  bool startedSince = true;
  const auto takeProof = [&](const HistoryLine& line) {
    const auto& record = line.line.record;
    if (!record || record->delivery == 0 || record->kind != NameOf(Kind::Power).word) return;
    proof = L"shown by the delivery at " + line.time;
  };
  const auto take = [&](const HistoryLine& line) {
    if (line.line.provider != kHostProvider) return;
    const std::wstring text = line.line.message + L" at " + line.time;
    if (PowerCodeIn(line.line)) proof = std::to_wstring(++events) + L", the last " + text;
    if (line.line.level == L"ERROR") lastError = text;
    startedSince = StartsModule(line.line) || (startedSince && line.line.level != L"ERROR");
  };
  try {
    const auto files = LogFilesIn(folder);
    count = std::to_wstring(files.size()) + L" log files";
    for (const auto& file : files) ReadLog(file, take, Utf8(kHostProvider));
    // Other hosts might not log the events that they forward.
    for (const auto& file : files) {
      if (events == 0) ReadLog(file, takeProof, R"("kind":"power")");
    }
  } catch (const std::runtime_error& error) {
    return checks.Add(
        "log folder", false, Wide(error.what()), L"the log of a service",
        L"fix the folder above, or delete any file in its place, then restart the service, as "
        L"administrator: vxhost service stop, vxhost service start");
  }
  checks.Add("log folder", true, folder.wstring() + L", " + count);
  checks.Add("last error", startedSince, lastError.empty() ? L"none" : lastError,
             L"none since the last start", L"see what happened then: vxhost history");
  checks.Add("power events", !proof.empty(), proof.empty() ? L"none in " + count : proof,
             L"at least one",
             L"let the machine sleep and wake while the service runs: vxhost watch --service");
}

void ConsoleUser(Checks& checks) {
  const std::uint32_t session = Machine().sessions->ActiveConsoleSession();
  if (session == Platform::kNoSession) {
    return checks.Add("console", false, L"no session", L"a session with a user",
                      L"sign in at the machine: programs start in that session only");
  }
  const auto user = Machine().sessions->QueryText(session, Platform::SessionText::UserName);
  checks.Add("console", user && !user->empty(),
             L"session " + std::to_wstring(session) + L", user " +
                 (user ? *user : L"unknown: error " + std::to_wstring(user.Error())),
             L"a user", L"sign in at the machine");
  const auto logon = Orvane::LogonProcessIn(session);
  const auto image = logon ? Machine().processes->ImagePath(*logon) : std::nullopt;
  checks.Add("logon process", image.has_value(), image.value_or(L"none was found"),
             L"winlogon.exe in the session of the console",
             L"run it as administrator: vxhost doctor");
}

void Package(const Orvane::CompanionApp& app, Checks& checks) {
  const Platform::ActingReport ignored = [](auto, auto) {};
  const auto query = [&] {
    return Machine().packages->FindByFamily(app.packageFamilyName).fullNames;
  };
  auto found = Platform::AsConsoleUser(ignored, query);
  if (found.empty()) found = query();
  checks.Add("companion app", !found.empty(),
             std::wstring(app.packageFamilyName) +
                 (found.empty() ? L" is not installed for the user" : L": " + found.front()),
             L"installed for the user at the console",
             L"install it, unless this machine is sold without it: Add-AppxPackage FILE");
}

// Checks the features of Windows and of the machine that the module uses.
void Parts(Tessel::Security::KeySet general, Checks& checks) {
  const auto setup = Machine().oobe->Query();
  checks.Add("first-run set-up", setup.known && setup.complete,
             !setup.known     ? L"not reported"
             : setup.complete ? L"complete"
                              : L"not complete",
             L"complete", L"the service waits until Windows has finished its set-up");
  const std::wstring library = Expanded(L"%windir%\\System32\\wldp.dll");
  const bool trusted = Tessel::Security::VerifyFile(library, general).trusted;
  checks.Add("lockdown library", trusted, library + (trusted ? L", trusted" : L", not trusted"),
             L"a library that is signed with a general key",
             L"without it S mode is never noticed: vxhost trust --general " + library);
  for (const auto& app : {Orvane::kQubo, Orvane::kAurelo}) Package(app, checks);
  Tessel::Server::Shared::WMI::VxBiosWmi firmware;
  const bool ready = firmware.GetReady();
  checks.Add("firmware", ready,
             ready ? L"its WMI namespace opens (its class is not queried)" : L"no WMI namespace",
             L"the maker's WMI provider", L"a machine of another maker keeps no born-on date");
  const auto part = [&](const char* what, bool present, const wchar_t* advice) {
    checks.Add(what, present, present ? L"present" : L"absent", L"present", advice);
  };
  part("session functions", Machine().apiSets->IsPresent(Platform::kSessionApiSet),
       L"this edition has no interactive users: nothing is started for them");
  part("custom triggers", Machine().systemTriggers->ArePresent(),
       L"this Windows raises no custom triggers: subscriptions with one only log a status");
}

Checks Examine(const Options& options, const ModuleOptions& which) {
  const std::wstring module = which.Path();
  std::optional<ModulePins> pins;
  try {
    pins.emplace(module);
  } catch (const std::runtime_error&) {  // NOLINT(bugprone-empty-catch): Pins reports it
  }
  Checks checks;
  ModuleFile(module, "module", L"install both from one package: vxhost service install --replace",
             checks);
  ModuleSignature(module, checks);
  Pins(module, pins, checks);
  const std::wstring folder = Expanded(L"%ProgramData%\\Vx");
  const std::string why = ServiceHost::WhyWritable(folder, ServiceHost::Writers::System);
  checks.Add(
      "folder", why.empty(), why.empty() ? folder : Wide(why),
      L"a folder of SYSTEM or the administrators that users can only read",
      L"create it at installation, so that no user can create it first: vxhost service stop, "
      L"vxhost service install --replace --repair --name " +
          Wide(options.name));
  Store(which.limits, pins ? pins->Restricted() : Tessel::Security::KeySet(), checks);
  ConsoleUser(checks);
  Parts(pins ? pins->General() : Tessel::Security::KeySet(), checks);
  if (which.simulate) return checks;
  checks.Add("standby", true,
             ServiceHost::HasModernStandby() ? L"Modern Standby, which ends the wait of a delivery"
                                             : L"no Modern Standby");
  Service(options.name, checks);
  Log(options.logFolder, checks);
  return checks;
}

int Doctor(const Options& options, const ModuleOptions& module, Console& console) {
  std::optional<Simulator::SimulatedMachine> simulated;
  std::optional<Platform::MachineScope> scope;
  if (module.simulate) {
    simulated.emplace();
    scope.emplace([&](Platform::Machine& machine) { simulated->Install(machine); });
  }
  const Checks checks = Examine(options, module);
  if (console.WritesJson()) {
    console.JsonResult(JsonRow::TextOf(checks.rows));
  } else {
    for (const std::string& text : checks.lines) console.Line(text);
  }
  return checks.worst;
}

constexpr char kFooter[] =
    "Changes nothing, starts nothing and creates nothing.\n"
    "Exit code 0: everything is in order; 1: findings; 2: the module cannot be used.\n"
    "  vxhost doctor\n"
    "  vxhost doctor --json > report.json";

}  // namespace

void AddDoctorCommand(CommandLine& line) {
  const auto [doctor, options] =
      line.Add({"doctor", "examine whether this machine has what the module needs", kFooter},
               &Doctor, Shared::Dll | Shared::Simulate | Shared::Timeout | Shared::Json);
  doctor.add_option("--name", options.name, "the name of the service")->capture_default_str();
  doctor.add_option("--log", options.logFolder,
                    "a folder of logs; by default that of the installed service");
}

}  // namespace Vx::Hosting::Tool
