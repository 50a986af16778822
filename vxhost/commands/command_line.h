#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "hosting/store_wait.h"
#include "vxhost/common/console.h"
#include "vxhost/common/module_options.h"

namespace Vx::Host {

// The longest wait that an option can ask for: a day.
constexpr int kLongestSeconds = 86'400;

// The subcommands, and the one that the command line names. One thread.
class CommandLine {
 public:
  // Returns an ExitCode and throws std::exception for a fault that the user has to correct: in the
  // module, a file or a text.
  using Run = std::function<int(Console&)>;

  CommandLine();

  // Adds a subcommand to the tool, or to `parent`. `footer` stands below its help.
  CLI::App& Add(const char* name, const char* about, const char* footer, Run run);
  CLI::App& Add(CLI::App& parent, const char* name, const char* about, const char* footer, Run run);
  // Adds a subcommand that only has subcommands of its own.
  CLI::App& AddGroup(const char* name, const char* about);

  // Lets the module options precede `command`. They are refused everywhere else, where they would
  // have no effect: the user would take the machine's store for a private one, for example.
  void UseModule(const CLI::App& command);
  const ModuleOptions& Module() const { return module; }

  // Lets --store precede `command`, in the same way.
  void UseStore(const CLI::App& command) { storeOption.users.push_back(&command); }

  // Adds --json to `command`, which then writes its results with Console::JsonResult. A failure
  // that it throws is written in the form of ErrorJson.
  void OfferJson(CLI::App& command);
  const bool& Json() const { return json; }

  // Adds --timeout to `command`: the seconds that it waits for the store.
  static void AddTimeout(CLI::App& command, HoldLimits& limits);

  // Adds --service[=NAME] to `command`, which leaves `name` empty when the option is missing.
  static void OfferService(CLI::App& command, std::string& name);

  // Parses and runs. Returns the exit code of the process. Writes what the subcommand throws.
  int Execute(std::vector<std::string> arguments);

 private:
  // Options that stand before the subcommand, and the subcommands that use them.
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

}  // namespace Vx::Host
