#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "hosting/store_hold.h"
#include "vxhost/common/console.h"
#include "vxhost/common/module_options.h"

namespace Vx::Hosting::Tool {

// The longest wait that an option can request: a day.
constexpr int kLongestSeconds = 86'400;

// The subcommands and the one chosen on the command line. One thread.
class CommandLine {
 public:
  // Returns an ExitCode. Throws std::exception for an error that the user must correct.
  using Run = std::function<int(Console&)>;

  // `alone` runs if the command line names no subcommand.
  explicit CommandLine(Run alone);

  // Add a subcommand to the tool, or to `parent`. `footer` is printed below its help.
  CLI::App& Add(const char* name, const char* about, const char* footer, Run run);
  CLI::App& Add(CLI::App& parent, const char* name, const char* about, const char* footer, Run run);
  // Adds a subcommand that only has subcommands of its own.
  CLI::App& AddGroup(const char* name, const char* about);

  // Allows the module options before `command`. Other commands, on which they would have no effect,
  // reject them: a user might think, for example, that one uses a private store.
  void UseModule(const CLI::App& command);
  const ModuleOptions& Module() const { return module; }

  // Allows --store before `command`, in the same way.
  void UseStore(const CLI::App& command) { storeOption.users.push_back(&command); }

  // Adds --json to `command`, which then writes its results with Console::JsonResult. Errors that
  // it throws are written in the form of ErrorJson.
  void OfferJson(CLI::App& command);
  const bool& Json() const { return json; }

  // Adds --timeout to `command`, in seconds to wait for the store.
  static void AddTimeout(CLI::App& command, HoldLimits& limits);

  // Adds --service[=NAME] to `command`. `name` stays empty if the option is absent.
  static void OfferService(CLI::App& command, std::string& name);

  // Runs the subcommand in `arguments`. Prints what it throws. Returns the process's exit code.
  int Execute(std::vector<std::string> arguments);

 private:
  // Options that precede the subcommand, and the subcommands that use them.
  struct LeadingOptions {
    std::vector<const CLI::Option*> options;
    std::vector<const CLI::App*> users;
  };

  void RefuseUnknownSubcommand(const std::vector<std::string>& arguments) const;
  void RefuseUselessOptions() const;
  void ChooseStore() const;
  int Fail(const std::string& why, std::int32_t result) const;

  CLI::App app;
  LeadingOptions moduleOptions;
  LeadingOptions storeOption;
  ModuleOptions module;
  bool json = false;
  bool quiet = false;
  std::string colours = "auto";
  const CLI::App* chosen = nullptr;
  Run run;
};

}  // namespace Vx::Hosting::Tool
