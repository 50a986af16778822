#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "vxhost/common/console.h"
#include "vxhost/common/module_options.h"

namespace Vx::Hosting::Tool {

// The longest wait that an option can request: a day.
constexpr int kLongestSeconds = 86'400;

// Options shared by several subcommands, as bits. A subcommand rejects an option that it does not
// list, because the user might think, for example, that it uses a private store.
namespace Shared {
enum Options : unsigned {
  None = 0,
  Dll = 1,
  PrivateStore = 2,
  Simulate = 4,
  Store = 8,
  Leading = Dll | PrivateStore | Simulate | Store,  // these may also precede the subcommand
  Timeout = 16,                                     // the time to wait for the store
  Service = 32,
  Json = 64,  // the subcommand writes its results with Console::JsonResult
};
}  // namespace Shared

// A subcommand's name, its description, and the footer of its help.
struct CommandText {
  const char* name;
  const char* about;
  const char* footer;
};

// A subcommand without options of its own.
struct NoOptions {};

// The subcommands, and the one that the command line selects. Use from one thread.
class CommandLine {
 public:
  // Returns an ExitCode. Throws std::exception for an error that the user must correct.
  template <typename Options>
  using Run = int (*)(const Options&, const ModuleOptions&, Console&);

  // A new subcommand, and the struct for its options. The caller adds an option for each member.
  template <typename Options>
  struct Added {
    CLI::App& app;
    Options& options;
  };

  // `alone` runs if the command line names no subcommand.
  explicit CommandLine(int (*alone)(Console&));

  // Adds a subcommand to the tool, or to `parent`. `shared` is a combination of Shared bits.
  template <typename Options>
  Added<Options> Add(const CommandText& text, Run<Options> handler, unsigned shared,
                     CLI::App* parent = nullptr) {
    const auto options = std::make_shared<Options>();
    const auto function = [this, handler, options](Console& console) {
      return handler(*options, module, console);
    };
    return {AddCommand(text, function, shared, parent), *options};
  }
  // Adds a subcommand that only contains other subcommands.
  CLI::App& AddGroup(const char* name, const char* about);

  // Runs the subcommand in `arguments` and prints any error that it throws. Returns the exit code.
  int Execute(std::vector<std::string> arguments);

 private:
  using Function = std::function<int(Console&)>;

  CLI::App& AddCommand(const CommandText& text, Function function, unsigned shared,
                       CLI::App* parent);
  void AddShared(CLI::App& command, unsigned options);
  std::string UsersOf(unsigned option) const;
  void RefuseUnknownSubcommand(const std::vector<std::string>& arguments) const;
  void RefuseUselessOptions() const;
  void ChooseStore() const;
  int Fail(const std::string& why, std::int32_t result) const;

  CLI::App app;
  ModuleOptions module;
  ConsoleOptions output;
  std::string colours = "auto";
  std::vector<std::pair<CLI::App*, unsigned>> commands;  // with their shared options
  unsigned useful = Shared::None;                        // those of the chosen command
  Function run;
};

}  // namespace Vx::Hosting::Tool
