#include "vxhost/commands/commands.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <utility>

#include <windows.h>

#include "hosting/loaded_module.h"
#include "hosting/text.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/machine.h"
#include "servicehost/accounts.h"
#include "servicehost/guarded_folder.h"
#include "servicehost/host_loop.h"
#include "servicehost/log_folder.h"
#include "servicehost/pipe_server.h"
#include "servicehost/power_notifications.h"
#include "servicehost/service_log.h"
#include "servicehost/service_process.h"
#include "vxhost/service/service_manager.h"

namespace Vx::Hosting::Tool {

namespace {

using namespace ServiceHost;

struct Options {
  std::string name = kDefaultServiceName;
  std::vector<std::string> allowed;  // for "run" and "install"
  std::string log;                   // for "run", like the next
  int seconds = 0;
  std::string start;  // for "install", like the next three
  bool repair = false;
  bool replace = false;
  bool development = false;
  bool force = false;                // for "remove"
  std::vector<std::uint32_t> power;  // for "send", like the next
  std::vector<std::uint32_t> sessions;
};

std::vector<std::wstring> WideAll(const std::vector<std::string>& texts) {
  std::vector<std::wstring> wide(texts.size());
  std::ranges::transform(texts, wide.begin(), [](const auto& text) { return Wide(text); });
  return wide;
}

int RunService(const Options& options, const ModuleOptions& module, Console& console) {
  PipeOptions pipe;
  pipe.path = PipePath(Wide(options.name));
  // The module starts work as soon as it is loaded, so check everything else first.
  pipe.allowed = SidsOf(WideAll(options.allowed));
  if (!options.log.empty() && !std::filesystem::is_directory(FullPath(options.log))) {
    throw std::runtime_error("there is no folder " + Utf8(FullPath(options.log)));
  }
  StopRequest stop;
  std::vector<LogTarget> targets = {[&console](const LogEntry& entry) { console.Log(entry.line); }};
  std::optional<LogFolder> folder;
  if (!options.log.empty()) {
    folder.emplace(FullPath(options.log), Wide(options.name));
    targets.emplace_back([&folder](const LogEntry& entry) { folder->Write(entry); });
  }
  ServiceLog log(std::move(targets));
  HostLoop host({.module = module.Path(), .modernStandby = HasModernStandby()}, log);
  const PowerNotifications power(PowerNotifications::Kind::Sleep,
                                 [&host](std::uint32_t code) { host.OnPower(code); });
  const PipeServer server(
      std::move(pipe), std::bind_front(&HostLoop::Execute, &host),
      [&log](const wchar_t* level, std::wstring_view message) { log.Add(level, message); });
  std::fprintf(stderr, "%s runs as process %lu; Ctrl+C ends it\n", options.name.c_str(),
               GetCurrentProcessId());
  stop.Wait(options.seconds == 0 ? INFINITE : static_cast<DWORD>(options.seconds) * 1000);
  return kDone;
}

constexpr char kRunFooter[] =
    "Clients send commands over the pipe \\\\.\\pipe\\VxHost-NAME, see docs/host.md, for example\n"
    "vxhost exec 22 --service=NAME --process PID.\n"
    "  vxhost service run --log C:\\Logs";

std::wstring CheckedName(const std::string& name) {
  if (!IsServiceName(Wide(name))) {
    throw std::runtime_error(
        "a service's name has 1 to 64 letters, digits, dots, hyphens and underscores");
  }
  return Wide(name);
}

// Returns the path of `file` without links, because the creator of a link could redirect it later.
std::wstring WithoutLinks(const std::wstring& file) {
  const auto place = Platform::CurrentMachine().files->FinalPath(file);
  if (place) return *place;
  throw WindowsError("Windows does not report where " + Utf8(file) + " is", place.Error());
}

int Install(const Options& options, const ModuleOptions& module, Console& console) {
  ServicePlan plan;
  plan.name = CheckedName(options.name);
  const std::wstring tool = OwnPath();
  plan.program =
      WithoutLinks(FullPathOfFile(Utf8(tool.substr(0, tool.rfind(L'\\') + 1)) + "OrvaneHost.exe"));
  plan.module = WithoutLinks(module.Path());
  if (!options.start.empty()) {
    plan.start =
        options.start == "auto" ? ServicePlan::Start::Automatic : ServicePlan::Start::Demand;
  }
  plan.allowed = SidsOf(WideAll(options.allowed));
  plan.development = options.development;
  plan.replaces = options.replace;
  if (const auto replaced = options.replace ? ServiceManager().Query(plan.name) : std::nullopt) {
    if (plan.allowed.empty()) plan.allowed = replaced->options.allowed;
    plan.development = plan.development || replaced->options.development;
  }
  const Writers accepted = plan.development ? Writers::Account : Writers::System;
  for (const std::wstring& file : {plan.program, plan.module}) {
    if (const std::string why = WhyUnguarded(file, accepted); !why.empty()) {
      throw std::runtime_error(why +
                               ";\nit could replace what runs as SYSTEM. Install into a "
                               "folder that only administrators write to");
    }
  }
  const auto existing = options.repair ? Existing::Repair : Existing::Report;
  for (const std::string& folder : PrepareFolders(ProgramDataFolder(), accepted, existing)) {
    console.Line("repaired: " + WithAccountNames(folder));
  }
  if (const std::string why = WhyNoModule(plan.module); !why.empty()) {
    throw std::runtime_error(Utf8(plan.module) + " " + why);
  }
  for (const std::string& unknown : ServiceManager().Install(plan)) {
    console.Line("this Windows does not support, so the service lacks: " + unknown);
  }
  for (const std::wstring& sid : plan.allowed) {
    console.Line("warning: " + WithAccountNames(Utf8(sid)) +
                 " may now start any trusted program as SYSTEM, with its own arguments");
  }
  if (plan.development) {
    console.Line(
        "warning: a service for development. The account that installs can replace what "
        "runs as SYSTEM, and users at the machine can send it events");
  }
  console.Line(options.name + " is installed");
  return kDone;
}

// Returns the last error that the service itself has logged since `begin`, with its time and file.
std::string LastError(const std::wstring& name, const std::wstring& begin) {
  try {
    std::wstring found;
    for (const auto& file : LogFilesIn(LogFolderOf({}))) {
      if (!file.filename().wstring().starts_with(name + L"-")) continue;
      const auto take = [&](const HistoryLine& line) {
        const bool own = line.line.provider == kHostProvider && line.line.level == L"ERROR";
        if (!own || line.time < begin) return;
        found = line.line.message + L" (" + line.time + L" in " + file.wstring() + L")";
      };
      ReadLog(file, take, Utf8(kHostProvider));
    }
    return found.empty() ? "its log has no error of this start" : Utf8(found);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

int Start(const Options& options, const ModuleOptions&, Console& console) {
  const std::wstring name = CheckedName(options.name);
  const std::wstring begin = DateTimeText(Platform::CurrentMachine().clock->UtcFileTime());
  try {
    ServiceManager().Start(name);
  } catch (const WindowsError& error) {
    const bool tried =
        error.Code() != ERROR_SERVICE_DOES_NOT_EXIST && error.Code() != ERROR_ACCESS_DENIED;
    if (tried) console.Line(LastError(name, begin));
    throw;
  }
  console.Line(options.name + " runs");
  return kDone;
}

int Stop(const Options& options, const ModuleOptions&, Console& console) {
  ServiceManager().Stop(CheckedName(options.name));
  console.Line(options.name + " is stopped");
  return kDone;
}

int Remove(const Options& options, const ModuleOptions&, Console& console) {
  ServiceManager().Remove(CheckedName(options.name), options.force
                                                         ? ServiceManager::Running::Marked
                                                         : ServiceManager::Running::Refused);
  console.Line(options.name + " is removed");
  return kDone;
}

std::wstring NameOf(std::uint32_t state) {
  // In order from SERVICE_STOPPED, which is 1.
  static constexpr const wchar_t* kNames[] = {L"stopped", L"starting", L"stopping", L"running"};
  return state - 1 < std::size(kNames) ? kNames[state - 1] : L"other";
}

int Status(const Options& options, const ModuleOptions&, Console& console) {
  const std::wstring name = CheckedName(options.name);
  const auto report = ServiceManager().Query(name);
  const std::wstring state = report ? NameOf(report->state) : L"not installed";
  JsonRow row{{L"name", name}, {L"state", state}};
  std::vector<std::string> lines{options.name + ": " + Utf8(state)};
  if (report) {
    const ServiceOptions& installed = report->options;
    const std::string start = report->automatic ? "auto" : "demand";
    row.Add({L"process", report->process});
    row.Add({L"exitCode", report->exitCode});
    row.Add({L"start", start});
    row.Add({L"account", report->account});
    row.Add({L"image", report->image});
    if (!installed.module.empty()) row.Add({L"module", installed.module});
    row.Add({L"allow", installed.allowed});
    row.Add({L"development", installed.development});
    row.Add({L"pipe", PipePath(name)});
    if (report->process != 0) lines[0] += ", process " + std::to_string(report->process);
    if (report->exitCode != 0) {
      lines[0] +=
          ", error " + std::to_string(report->exitCode) + ": " + ErrorText(report->exitCode);
    }
    lines.push_back("  start:   " + start);
    lines.push_back("  account: " + Utf8(report->account));
    lines.push_back("  image:   " + Utf8(report->image));
    lines.push_back("  module:  " + Utf8(installed.module));
    lines.push_back("  pipe:    " + Utf8(PipePath(name)));
    for (const std::wstring& sid : installed.allowed) {
      lines.push_back("  allow:   " + WithAccountNames(Utf8(sid)));
    }
    if (installed.development) lines.emplace_back("  for development");
  }
  console.Show(row, lines);
  return report && report->state == SERVICE_RUNNING ? kDone : kNotMet;
}

int Send(const Options& options, const ModuleOptions&, Console& console) {
  if (options.power.empty() && options.sessions.empty()) {
    throw std::runtime_error("no event to send: name one with --power or --session");
  }
  ServiceManager manager;
  const std::wstring name = CheckedName(options.name);
  for (const std::uint32_t code : options.power) {
    console.Line("-> power event " + std::to_string(code));
    manager.Send(name, kPowerControl + code);
  }
  for (const std::uint32_t code : options.sessions) {
    console.Line("-> session change " + std::to_string(code));
    manager.Send(name, kSessionControl + code);
  }
  return kDone;
}

constexpr char kInstallFooter[] =
    "Needs administrator rights. Creates %ProgramData%\\Vx with its folders, which users cannot\n"
    "write to. Fails if another account may write to the folder of this tool or of the\n"
    "module, or to %ProgramData%\\Vx. The service is OrvaneHost.exe, which is next to this tool,\n"
    "and runs as LocalSystem.\n"
    "  vxhost service install --start demand\n"
    "  vxhost --dll \"C:\\Program Files\\Vx\\OrvaneService.dll\" service install";
constexpr char kNameFooter[] = "Needs administrator rights, and waits until it is done.";
constexpr char kStatusFooter[] =
    "Exit code 0 if the service is running, otherwise 1.\n"
    "  vxhost service status --json";
constexpr char kSendFooter[] =
    "Only for a service that was installed with --development. Codes of 0 to 63.\n"
    "  vxhost service send --power 7";

}  // namespace

void AddServiceCommands(CommandLine& line) {
  CLI::App& group = line.AddGroup("service", "the module as a running service");
  const auto add = [&](const CommandText& text, CommandLine::Run<Options> run,
                       unsigned shared = Shared::None) {
    const auto added = line.Add(text, run, shared, &group);
    added.app.add_option("--name", added.options.name, "its name")->capture_default_str();
    return added;
  };
  const auto [run, hosted] =
      add({"run", "host the module in this console until Ctrl+C", kRunFooter}, &RunService,
          Shared::Dll);
  run.add_option("--log", hosted.log, "an existing folder for log files");
  run.add_option("--allow", hosted.allowed,
                 "another account, as name or SID: it may then start every trusted program\n"
                 "as the service's account, with its own arguments");
  run.add_option("--seconds", hosted.seconds, "how long; 0: until Ctrl+C")
      ->check(CLI::Range(0, kLongestSeconds));
  const auto [install, installed] =
      add({"install", "install the module as a Windows service", kInstallFooter}, &Install,
          Shared::Dll);
  install.add_option("--start", installed.start, "auto (delayed, the default) or demand")
      ->check(CLI::IsMember({"auto", "demand"}));
  install.add_option("--allow", installed.allowed,
                     "another account for its pipe, as name or SID: it may then start every\n"
                     "trusted program as SYSTEM, with its own arguments");
  install.add_flag("--repair", installed.repair,
                   "take the right to write to an existing %ProgramData%\\Vx from users");
  install.add_flag("--replace", installed.replace,
                   "give an installed service of this name these files and options; it uses them\n"
                   "from its next start on, and keeps the options that are not given");
  install.add_flag("--development", installed.development,
                   "accept folders of the account that installs, and events of \"service send\";\n"
                   "never on a machine that others use");
  add({"start", "start the installed service", kNameFooter}, &Start);
  add({"stop", "stop the service", kNameFooter}, &Stop);
  const auto [remove, removed] =
      add({"remove", "remove the stopped service; its data stays", kNameFooter}, &Remove);
  remove.add_flag("--force", removed.force,
                  "even a running one, which Windows removes when it stops");
  add({"status", "show whether the service is running", kStatusFooter}, &Status, Shared::Json);
  const auto [send, sent] =
      add({"send", "send events to a service under development", kSendFooter}, &Send);
  send.add_option("--power", sent.power, "power broadcast codes (PBT_)")->check(CLI::Range(0, 63));
  send.add_option("--session", sent.sessions, "session change codes (WTS_SESSION_)")
      ->check(CLI::Range(0, 63));
}

}  // namespace Vx::Hosting::Tool
