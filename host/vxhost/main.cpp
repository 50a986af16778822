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

#include "host/vxhost/commands.h"
#include "host/vxhost/text.h"
#include "platform/hresult_error.h"

namespace {

using namespace Vx::Host;

constexpr char kAbout[] =
    "The development host: loads the service module and plays the service host's part, and shows\n"
    "an operator what the module stores, trusts and decides.";
constexpr char kFooter[] =
    "Exit codes: 0 done; 1 the command answered a failure, an expectation was not met, a file is\n"
    "not trusted or a subscription would never run; 2 wrong usage, or the module, a file or the\n"
    "store cannot be used.";

using Run = int (*)(const Options&, Console&);

// The subcommands, and which of them the command line named.
class CommandLine {
 public:
  CommandLine() : app(kAbout, "vxhost") {
    app.footer(kFooter);
    app.require_subcommand(1);
    app.fallthrough();
    app.allow_windows_style_options(false);  // a path may begin with a slash
    app.add_option("--dll", options.dll, "the module (default: OrvaneService.dll beside vxhost)");
    app.add_flag("--private-store", options.privateStore,
                 "keep stored values in a folder of this run");
    app.add_flag("--simulate", options.simulate,
                 "exec, scenario, events: play on a simulated machine, with the service that is\n"
                 "built into vxhost and a store of this run");
    AddModuleCommands();
    AddStoreCommands();
    AddTrustCommands();
    AddOtherCommands();
  }

  // The exit code.
  int Execute(std::vector<std::string> arguments) {
    try {
      std::reverse(arguments.begin(), arguments.end());  // the parser takes them from the end
      app.parse(std::move(arguments));
    } catch (const CLI::ParseError& error) {
      return app.exit(error) == 0 ? kDone : kUnusable;
    }
    Console console(options.json ? LogForm::Json : LogForm::Text);
    return run(options, console);
  }

 private:
  CLI::App* Add(CLI::App& parent, const char* name, const char* about, Run function) {
    auto* command = parent.add_subcommand(name, about);
    command->callback([this, function] { run = function; });
    return command;
  }

  void AddModuleCommands() {
    auto* exec = Add(app, "exec", "run one command and print its answer", &Exec);
    exec->add_option("id", options.id, "the command's number")->required();
    exec->add_option("request", options.request, "the request's JSON, or @FILE");
    exec->add_option("--caller", options.caller, "the client's identity")->capture_default_str();

    auto* scenario = Add(app, "scenario", "play a scenario and check what it expects", &Scenario);
    scenario->add_option("file", options.file, "the scenario")->required();
    scenario->add_option("--define", options.definitions, "NAME=VALUE for ${NAME} in it");

    auto* events = Add(app, "events", "send power and session events", &Events);
    events->add_option("--power", options.power, "power broadcast codes (PBT_)");
    events->add_option("--session", options.sessions, "session change codes (WTS_SESSION_)");
    events->add_option("--seconds", options.seconds, "how long deliveries may take")
        ->capture_default_str();
  }

  void AddStoreCommands() {
    auto* store = app.add_subcommand("store", "the shared store");
    store->require_subcommand(1);
    Add(*store, "show", "print the decrypted store as JSON, each value with its type", &ShowStore);
    Add(app, "subscriptions", "list the stored subscriptions", &ShowSubscriptions);
  }

  void AddTrustCommands() {
    auto* trust = Add(app, "trust", "explain whether a file is trusted, step by step", &Trust);
    trust->add_option("file", options.file, "the file")->required();
    trust->add_flag("--general", options.general, "against the general keys, not the restricted");

    auto* pin = Add(app, "pin", "print a signed file's public keys in the pinned form", &Pin);
    pin->add_option("file", options.file, "the file")->required();
  }

  void AddOtherCommands() {
    auto* watch = Add(app, "watch", "show the log lines of a running module as they come", &Watch);
    watch->add_option("--seconds", options.seconds, "how long; 0: until it is ended");
    watch->add_flag("--json", options.json, "one JSON object a line");
    watch->add_flag("--global", options.global, "of services (needs administrator rights)");
    watch->preparse_callback([this](std::size_t) { options.seconds = 0; });

    auto* validate = Add(app, "validate", "check a subscription before it is sent", &Validate);
    validate->add_option("request", options.request, "the subscription's JSON, or @FILE")
        ->required();

    Add(app, "explain-resume", "tell whether a resume would launch the companion app, and why",
        &ExplainResume);
  }

  CLI::App app;
  Options options;
  Run run = nullptr;
};

// The arguments as UTF-8: those of main have been through the system's code page.
std::vector<std::string> Arguments() {
  int count = 0;
  const std::unique_ptr<wchar_t*, decltype(&LocalFree)> wide(
      CommandLineToArgvW(GetCommandLineW(), &count), &LocalFree);
  std::vector<std::string> arguments;
  for (int i = 1; wide != nullptr && i < count; ++i) arguments.push_back(Utf8(wide.get()[i]));
  return arguments;
}

int Fail(const std::string& why) {
  std::fprintf(stderr, "vxhost: %s\n", why.c_str());
  return kUnusable;
}

}  // namespace

int main() {
  static_cast<void>(SetConsoleOutputCP(CP_UTF8));  // a console of another kind shows what it can
  try {
    return CommandLine().Execute(Arguments());
  } catch (const winrt::hresult_error& error) {
    return Fail(Utf8(error.message()));
  } catch (const std::exception& error) {
    return Fail(error.what());
  }
}
