#include <algorithm>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <windows.h>

#include <shellapi.h>

#include <CLI/CLI.hpp>

#include "platform/windows_runtime_error.h"
#include "vxhost/module_commands.h"
#include "vxhost/store_commands.h"
#include "vxhost/text.h"
#include "vxhost/trust_commands.h"
#include "vxhost/validate_command.h"
#include "vxhost/watch_command.h"

namespace {

using namespace Vx::Host;

constexpr char kAbout[] =
    "The development host: loads the service module in the role of the service host, and shows "
    "what\n"
    "the module stores, trusts and decides.";
constexpr char kFooter[] =
    "Exit codes: 0 done; 1 the command failed, an expectation was not met, a file is not trusted "
    "or\n"
    "has no signature to pin, or a subscription would never run; 2 wrong usage, or the module, a\n"
    "file or the store cannot be used.\n"
    "\n"
    "vxhost SUBCOMMAND --help shows every option and an example.";

// Below the help of each subcommand.
constexpr char kExecFooter[] =
    "vxhost --dll, --private-store and --simulate choose the module and its store.\n"
    "Exit code 0 for result code 0x00000000, else 1.\n"
    "  vxhost exec 22\n"
    "  vxhost --private-store exec 9 @subscription.json";
constexpr char kScenarioFooter[] =
    "vxhost --dll, --private-store and --simulate choose the module and its store.\n"
    "A scenario is a JSON file of steps; see the samples, and docs/vxhost.md for every part.\n"
    "Exit code 1 when an expectation was not met: the lines with !! name it.\n"
    "  vxhost --simulate scenario first_boot.json";
constexpr char kEventsFooter[] =
    "vxhost --dll, --private-store and --simulate choose the module and its store.\n"
    "Power: 4 suspending, 7 resumed by the user, 10 power status changed, 18 resumed.\n"
    "Session: 1 console connected, 5 logon, 6 logoff, 7 locked, 8 unlocked.\n"
    "  vxhost events --power 4 7 --seconds 10";
constexpr char kStoreFooter[] =
    "Reads %ProgramData%\\Vx\\SharedServices\\shared_store.dat of this machine.\n"
    "  vxhost store show > store.json";
constexpr char kSubscriptionsFooter[] = "  vxhost subscriptions";
constexpr char kTrustFooter[] =
    "The keys are those compiled into this vxhost. Lines with + are checks that the file passes, "
    "lines\n"
    "with - checks that it fails. Exit code 0: trusted; 1: not.\n"
    "  vxhost trust \"C:\\Program Files\\Maker\\Tool.exe\"";
constexpr char kPinFooter[] = "  vxhost pin Signed.exe >> restricted.txt";
constexpr char kWatchFooter[] =
    "  vxhost watch\n"
    "  vxhost watch --json --seconds 60 > lines.json";
constexpr char kValidateFooter[] =
    "Exit code 0: it can run here; 1: it would never run, and the lines with NEVER give the "
    "reasons.\n"
    "  vxhost validate @subscription.json";
constexpr char kResumeFooter[] = "  vxhost explain-resume";
constexpr char kVersion[] = "vxhost " VX_VERSION;

// The longest wait: a day.
constexpr int kLongestSeconds = 86'400;

using Run = int (*)(const Options&, Console&);

// The subcommands, and the one that the command line names.
class CommandLine {
 public:
  CommandLine() : app(kAbout, "vxhost") {
    app.footer(kFooter);
    app.set_version_flag("--version", kVersion);
    app.require_subcommand(1);
    app.fallthrough();
    app.allow_windows_style_options(false);  // a path may begin with a slash
    const char* const group = "Options of exec, scenario and events";
    moduleOptions = {
        app.add_option("--dll", options.dll,
                       "the module (default: OrvaneService.dll beside vxhost)")
            ->group(group),
        app.add_flag("--private-store", options.privateStore, "give this run a store of its own")
            ->group(group),
        app.add_flag("--simulate", options.simulate,
                     "use a simulated machine, with the service that is built into vxhost and a\n"
                     "store of its own")
            ->group(group)};
    AddModuleCommands();
    AddStoreCommands();
    AddTrustCommands();
    AddOtherCommands();
  }

  // Returns the exit code.
  int Execute(std::vector<std::string> arguments) {
    try {
      RefuseUnknownSubcommand(arguments);
      std::reverse(arguments.begin(), arguments.end());  // the parser takes them from the end
      app.parse(std::move(arguments));
      RefuseUselessOptions();
    } catch (const CLI::ParseError& error) {
      return app.exit(error) == 0 ? kDone : kUnusable;
    }
    Console console(options.json ? LogForm::Json : LogForm::Text);
    return run(options, console);
  }

 private:
  CLI::App* Add(CLI::App& parent, const char* name, const char* about, const char* footer,
                Run function) {
    auto* command = parent.add_subcommand(name, about);
    command->footer(footer);
    command->callback([this, function] { run = function; });
    return command;
  }

  // The parser would only report that a subcommand is missing.
  void RefuseUnknownSubcommand(const std::vector<std::string>& arguments) const {
    if (arguments.empty() || arguments.front().rfind('-', 0) == 0) return;
    const std::string& name = arguments.front();
    const auto known = app.get_subcommands(
        [&name](const CLI::App* command) { return command->get_name() == name; });
    if (known.empty()) throw CLI::ValidationError("there is no subcommand \"" + name + "\"");
  }

  // An option without effect misleads: the command would, for example, use the machine's store.
  void RefuseUselessOptions() const {
    if (run == &Exec || run == &Scenario || run == &Events) return;
    for (const CLI::Option* option : moduleOptions) {
      if (option->count() == 0) continue;
      throw CLI::ValidationError(option->get_name(), "only exec, scenario and events use it");
    }
  }

  void AddModuleCommands() {
    auto* exec = Add(app, "exec", "run one command and print its answer", kExecFooter, &Exec);
    exec->add_option("id", options.id, "the number of the command")->required();
    exec->add_option("request", options.request, "the request's JSON, or @FILE");
    exec->add_option("--caller", options.caller, "the client's identity")->capture_default_str();

    auto* scenario = Add(app, "scenario", "play a scenario and check what it expects",
                         kScenarioFooter, &Scenario);
    scenario->add_option("file", options.scenarios, "the scenario; each of several is played anew")
        ->required();
    scenario->add_option("--define", options.definitions, "NAME=VALUE for ${NAME} in it");

    auto* events = Add(app, "events", "send power and session events", kEventsFooter, &Events);
    events->add_option("--power", options.power, "power broadcast codes (PBT_)");
    events->add_option("--session", options.sessions, "session change codes (WTS_SESSION_)");
    events->add_option("--seconds", options.seconds, "how long to wait for deliveries")
        ->check(CLI::Range(0, kLongestSeconds))
        ->capture_default_str();
  }

  void AddStoreCommands() {
    auto* store = app.add_subcommand("store", "the shared store");
    store->require_subcommand(1);
    Add(*store, "show", "print the decrypted store as JSON, each value with its type", kStoreFooter,
        &ShowStore);
    Add(app, "subscriptions", "list the stored subscriptions", kSubscriptionsFooter,
        &ShowSubscriptions);
  }

  void AddTrustCommands() {
    auto* trust =
        Add(app, "trust", "explain whether a file is trusted, step by step", kTrustFooter, &Trust);
    trust->add_option("file", options.file, "the file")->required();
    trust->add_flag("--general", options.general,
                    "check against the general keys instead of the restricted ones");

    auto* pin =
        Add(app, "pin", "print a signed file's public keys in the pinned form", kPinFooter, &Pin);
    pin->add_option("file", options.file, "the file")->required();
  }

  void AddOtherCommands() {
    auto* watch = Add(app, "watch", "show the log lines of a running module as it writes them",
                      kWatchFooter, &Watch);
    watch->add_option("--seconds", options.seconds, "how long; 0: until Ctrl+C")
        ->check(CLI::Range(0, kLongestSeconds));
    watch->add_flag("--json", options.json, "one JSON object per line");
    watch->add_flag("--global", options.global, "those of services (needs administrator rights)");
    watch->preparse_callback([this](std::size_t) { options.seconds = 0; });

    auto* validate =
        Add(app, "validate", "check a subscription before sending it", kValidateFooter, &Validate);
    validate->add_option("request", options.request, "the subscription's JSON, or @FILE")
        ->required();

    Add(app, "explain-resume", "explain whether a resume would launch the companion app, and why",
        kResumeFooter, &ExplainResume);
  }

  CLI::App app;
  std::vector<const CLI::Option*> moduleOptions;
  Options options;
  Run run = nullptr;
};

// The arguments as UTF-8. Those of main passed through the system's code page.
std::vector<std::string> Arguments() {
  int count = 0;
  const std::unique_ptr<wchar_t*, decltype(&LocalFree)> wide(
      CommandLineToArgvW(GetCommandLineW(), &count), &LocalFree);
  std::vector<std::string> arguments;
  for (int i = 1; wide != nullptr && i < count; ++i) arguments.push_back(Utf8(wide.get()[i]));
  return arguments;
}

int Fail(const std::string& why) {
  std::fprintf(stderr, "vxhost: %s\n", Printable(why, LineBreaks::Keep).c_str());
  return kUnusable;
}

}  // namespace

int main() {
  static_cast<void>(SetConsoleOutputCP(CP_UTF8));  // on failure the console shows what it can
  try {
    return CommandLine().Execute(Arguments());
  } catch (const Vx::Platform::WindowsRuntimeError& error) {
    return Fail(Utf8(error.message()));
  } catch (const std::exception& error) {
    return Fail(error.what());
  }
}
