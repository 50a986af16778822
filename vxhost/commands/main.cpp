#include <cstdio>
#include <exception>
#include <memory>

#include <windows.h>

#include <shellapi.h>

#include "hosting/loaded_module.h"
#include "hosting/text.h"
#include "vxhost/commands/commands.h"
#include "vxhost/common/console.h"
#include "vxhost/play/played_keys.h"
#include "vxhost/subscriptions/module_pins.h"

namespace {

using namespace Vx::Hosting::Tool;

// Returns the arguments as UTF-8. Those passed to main were converted to the system's code page.
std::vector<std::string> Arguments() {
  int count = 0;
  const std::unique_ptr<wchar_t*, decltype(&LocalFree)> wide(
      CommandLineToArgvW(GetCommandLineW(), &count), &LocalFree);
  std::vector<std::string> arguments;
  for (int i = 1; wide != nullptr && i < count; ++i)
    arguments.push_back(Vx::Hosting::Utf8(wide.get()[i]));
  return arguments;
}

}  // namespace

int main() {
  Vx::Hosting::PrepareProgram();
  const TerminalScope terminal;
  try {
    RefusePinnedSignature(Vx::Hosting::OwnPath(), Vx::Tessel::Security::BuiltGeneralKeys(),
                          Vx::Tessel::Security::BuiltRestrictedKeys());
    CommandLine line(&Overview);
    // The help lists the subcommands in this order.
    AddModuleCommands(line);
    AddServiceCommands(line);
    AddStoreCommands(line);
    AddSubscriptionCommands(line);
    AddTrustCommands(line);
    AddWatchCommand(line);
    AddValidateCommand(line);
    AddExplainCommand(line);
    AddHistoryCommand(line);
    AddDoctorCommand(line);
    return line.Execute(Arguments());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "vxhost: %s\n", error.what());
    return kUnusable;
  }
}
