#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include <windows.h>

#include <shellapi.h>

#include "vxhost/command_line.h"
#include "vxhost/console.h"
#include "vxhost/doctor_command.h"
#include "vxhost/explain_command.h"
#include "vxhost/history_command.h"
#include "vxhost/module_commands.h"
#include "vxhost/own_signature.h"
#include "vxhost/service_command.h"
#include "vxhost/store_commands.h"
#include "vxhost/subscription_commands.h"
#include "vxhost/text.h"
#include "vxhost/trust_commands.h"
#include "vxhost/validate_command.h"
#include "vxhost/watch_command.h"

namespace {

using namespace Vx::Host;

// The arguments as UTF-8. Those of main passed through the system's code page.
std::vector<std::string> Arguments() {
  int count = 0;
  const std::unique_ptr<wchar_t*, decltype(&LocalFree)> wide(
      CommandLineToArgvW(GetCommandLineW(), &count), &LocalFree);
  std::vector<std::string> arguments;
  for (int i = 1; wide != nullptr && i < count; ++i) arguments.push_back(Utf8(wide.get()[i]));
  return arguments;
}

}  // namespace

int main() {
  const TerminalScope terminal;
  try {
    RefusePinnedSignature(OwnPath());
    CommandLine line;
    // The order of the help.
    AddModuleCommands(line);
    AddServiceCommands(line);
    AddStoreCommands(line);
    AddSubscriptionCommands(line);
    AddTrustCommands(line);
    AddWatchCommand(line);
    AddValidateCommand(line);
    AddExplainCommand(line);
    AddHistoryCommand(line);
    AddResumeCommand(line);
    AddDoctorCommand(line);
    return line.Execute(Arguments());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "vxhost: %s\n", error.what());
    return kUnusable;
  }
}
