#include "vxhost/commands/command_line.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <stdexcept>

#include "hosting/text.h"
#include "platform/windows_runtime_error.h"
#include "servicehost/accounts.h"
#include "vxhost/service/service_manager.h"

#include <windows.h>

namespace Vx::Hosting::Tool {

namespace {

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
constexpr char kStays[] = "; --store names a store that is kept";
constexpr char kLeadingGroup[] = "Options that may also precede a subcommand whose help shows them";
constexpr char kLostOutput[] = "the output is incomplete: standard output cannot be written";
constexpr char kVersion[] = "vxhost " VX_VERSION;

constexpr struct {
  unsigned option;
  const char* name;
} kLeading[] = {{Shared::Dll, "--dll"},
                {Shared::PrivateStore, "--private-store"},
                {Shared::Simulate, "--simulate"},
                {Shared::Store, "--store"}};

}  // namespace

CommandLine::CommandLine(int (*alone)(Console&)) : app(kAbout, "vxhost"), run(alone) {
  app.footer(kFooter);
  app.set_version_flag("--version", kVersion);
  app.require_subcommand(0, 1);
  app.fallthrough();
  app.allow_windows_style_options(false);  // a path may start with a slash
  app.add_flag("-q,--quiet", output.quiet, "results only");
  app.add_option("--color", colours, "auto, always or never; NO_COLOR is respected")
      ->check(CLI::IsMember({"auto", "always", "never"}));
  AddShared(app, Shared::Leading);
  for (const auto& leading : kLeading) app.get_option(leading.name)->group(kLeadingGroup);
}

CLI::App& CommandLine::AddCommand(const CommandText& text, Function function, unsigned shared,
                                  CLI::App* parent) {
  CLI::App& command = *(parent == nullptr ? app : *parent).add_subcommand(text.name, text.about);
  command.footer(text.footer);
  commands.emplace_back(&command, shared);
  command.callback([this, &command, shared, function = std::move(function)] {
    if (!command.get_subcommands().empty()) return;  // one of its subcommands was chosen
    useful = shared;
    run = function;
  });
  return command;
}

CLI::App& CommandLine::AddGroup(const char* name, const char* about) {
  CLI::App& group = *app.add_subcommand(name, about);
  group.require_subcommand(1);
  return group;
}

void CommandLine::AddShared(CLI::App& command, unsigned options) {
  const auto has = [options](Shared::Options one) { return (options & one) != 0; };
  if (has(Shared::Dll)) {
    command.add_option("--dll", module.dll,
                       "the module (default: OrvaneService.dll next to vxhost)");
  }
  if (has(Shared::PrivateStore)) {
    command.add_flag("--private-store", module.privateStore,
                     "give this run its own store, which is deleted at the end");
  }
  if (has(Shared::Simulate)) {
    command.add_flag("--simulate", module.simulate,
                     "use a simulated machine, with the service that is built into vxhost and a\n"
                     "store that is deleted at the end");
  }
  if (has(Shared::Store)) {
    command.add_option("--store", module.store,
                       "use a store below this existing folder, not the machine's");
  }
  if (has(Shared::Timeout)) {
    command
        .add_option_function<int>(
            "--timeout",
            [this](int seconds) { module.limits.timeout = std::chrono::seconds(seconds); },
            "how many seconds to wait for the store; 0: no limit")
        ->check(CLI::Range(0, kLongestSeconds))
        ->default_str("30");
  }
  if (has(Shared::Service)) {
    command.add_flag("--service{" + std::string(kDefaultServiceName) + "}", module.service,
                     "use the running service, or with --service=NAME the one with this name");
  }
  if (has(Shared::Json)) command.add_flag("--json", output.json, "one JSON object per line");
}

int CommandLine::Execute(std::vector<std::string> arguments) {
  for (const auto& [command, shared] : commands) AddShared(*command, shared);
  // The parser may report an error before it reaches --json.
  output.json = std::ranges::find(arguments, "--json") != arguments.end();
  try {
    RefuseUnknownSubcommand(arguments);
    std::reverse(arguments.begin(), arguments.end());  // the parser reads them from the end
    app.parse(std::move(arguments));
    RefuseUselessOptions();
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() != 0 && output.json) return Fail(error.what(), 0);
    return app.exit(error) == 0 ? kDone : kUnusable;
  }
  if (colours != "auto") output.colours = colours == "always";
  Console console(output);
  try {
    ChooseStore();
    const int code = run(console);
    return console.LostOutput() ? Fail(kLostOutput, 0) : code;
  } catch (const WindowsError& error) {
    // The text depends on the language of Windows, so only people see it.
    std::string text = error.what();
    const std::string number = "(error " + std::to_string(error.Code());
    if (!output.json)
      text.insert(text.find(number) + number.size(), ": " + ErrorText(error.Code()));
    return Fail(text, 0);
  } catch (const Platform::WindowsRuntimeError& error) {
    return Fail(Utf8(error.message()), error.code());
  } catch (const std::exception& error) {
    return Fail(error.what(), 0);
  }
}

int CommandLine::Fail(const std::string& why, std::int32_t result) const {
  if (output.json) {
    Console({.json = true}).JsonResult(ErrorJson(why, kUnusable, result));
  } else {
    const std::string code = result == 0 ? "" : ": " + DescribeResult(result);
    const std::string text = ServiceHost::WithAccountNames(why + code);
    std::fprintf(stderr, "vxhost: %s\n", Printable(text, LineBreaks::Keep).c_str());
  }
  return kUnusable;
}

// Without this, the parser would only report that a subcommand is missing.
void CommandLine::RefuseUnknownSubcommand(const std::vector<std::string>& arguments) const {
  const CLI::App* parent = &app;
  for (const std::string& name : arguments) {
    std::vector<std::string> names;
    const CLI::App* known = nullptr;
    for (const CLI::App* command : parent->get_subcommands({})) {
      names.push_back(command->get_name());
      if (names.back() == name) known = command;
    }
    if (names.empty() || name.starts_with('-')) return;
    if (known == nullptr) {
      throw CLI::ValidationError("unknown subcommand \"" + name + "\"" + DidYouMean(name, names));
    }
    parent = known;
  }
}

// Returns the names of the subcommands that accept the option.
std::string CommandLine::UsersOf(unsigned option) const {
  std::vector<std::string> names;
  for (const auto& [command, shared] : commands) {
    if ((shared & option) == 0) continue;
    const CLI::App* parent = command->get_parent();
    names.push_back((parent == &app ? "" : parent->get_name() + " ") + command->get_name());
  }
  std::string text;
  for (const std::string& name : names) {
    text += (text.empty() ? "" : name == names.back() ? " and " : ", ") + name;
  }
  return text;
}

void CommandLine::RefuseUselessOptions() const {
  std::string refused;
  for (const auto& leading : kLeading) {
    if ((useful & leading.option) != 0 || app.get_option(leading.name)->count() == 0) continue;
    const bool stays = (useful & Shared::Store) != 0 && leading.option != Shared::Dll;
    refused += (refused.empty() ? "" : "\n") + std::string(leading.name) + ": only " +
               UsersOf(leading.option) + " use it" + (stays ? kStays : "");
  }
  if (!refused.empty()) throw CLI::ValidationError(refused);
}

// The module and the code linked into vxhost find the store through this variable.
void CommandLine::ChooseStore() const {
  const bool chooses = module.privateStore || module.simulate || !module.store.empty();
  if (!module.service.empty() && (chooses || !module.dll.empty())) {
    throw std::runtime_error("a running service has its own module and store");
  }
  if (int{module.privateStore} + int{module.simulate} + int{!module.store.empty()} > 1) {
    throw std::runtime_error(
        "use only one: --simulate and --private-store create a store that is deleted at the "
        "end, and --store names one that is kept");
  }
  if (module.store.empty()) return;
  const std::wstring folder = FullPath(module.store);
  const DWORD attributes = GetFileAttributesW(folder.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
    throw std::runtime_error("there is no folder " + Utf8(folder));
  }
  SetEnvironmentVariableW(L"ProgramData", folder.c_str());
}

}  // namespace Vx::Hosting::Tool
