#include <chrono>
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
#include "vxhost/service/service_manager.h"
#include "vxhost/store/store.h"
#include "vxhost/subscriptions/signing_keys.h"

namespace {

using namespace Vx::Hosting;
using namespace Vx::Hosting::Tool;

// Returns the arguments as UTF-8. Those passed to main were converted to the system's code page.
std::vector<std::string> Arguments() {
  int count = 0;
  const std::unique_ptr<wchar_t*, decltype(&LocalFree)> wide(
      CommandLineToArgvW(GetCommandLineW(), &count), &LocalFree);
  std::vector<std::string> arguments;
  for (int i = 1; wide != nullptr && i < count; ++i) arguments.push_back(Utf8(wide.get()[i]));
  return arguments;
}

constexpr HoldLimits kNoWait{.notice = std::chrono::seconds(2), .timeout = std::chrono::seconds(1)};

constexpr char kNext[] =
    "\nvxhost doctor           what this machine lacks, and how to fix it\n"
    "vxhost history          the outcome of each delivery, from the service's log\n"
    "vxhost subscriptions    what is stored, and why some of it never runs\n"
    "vxhost --help           every subcommand";

std::string ServiceState() {
  const auto report = ServiceManager().Query(Wide(kDefaultServiceName));
  if (!report) return "not installed: vxhost service install";
  return report->state == SERVICE_RUNNING ? "running, process " + std::to_string(report->process)
                                          : "installed, but not running: vxhost service start";
}

std::string StoreState() {
  const StoreLook look = LookAtStore(kNoWait);
  const StoreVerdict verdict = Diagnose(look);
  const bool usable =
      verdict.IsSound() || look.reading.state == Vx::Tessel::Server::Storage::StoreState::Missing;
  return verdict.text + (usable ? "" : ": vxhost store verify");
}

std::string Subscriptions() {
  const std::size_t count = SubscriptionsOf(LookAtStore(kNoWait)).size();
  return count == 0 ? "none" : std::to_string(count) + " stored";
}

// Prints the state of this machine's service, store and subscriptions, on one line each, and
// suggests what to run next. Runs if there is no subcommand. Changes nothing.
int Overview(Console& console) {
  const auto line = [&console](const char* what, const std::function<std::string()>& state) {
    try {
      console.Line(Cell(what, 16) + state());
    } catch (const std::exception& error) {
      console.Line(Cell(what, 16) + "not known: " + error.what());
    }
  };
  line("service", &ServiceState);
  line("store", &StoreState);
  line("subscriptions", &Subscriptions);
  console.Lines(kNext);
  return kDone;
}

}  // namespace

int main() {
  PrepareProgram();
  const TerminalScope terminal;
  try {
    RefusePinnedSignature(OwnPath(), Vx::Tessel::Security::BuiltGeneralKeys(),
                          Vx::Tessel::Security::BuiltRestrictedKeys());
    CommandLine line(&Overview);
    // The help lists the subcommands in this order.
    AddModuleCommands(line);
    AddServiceCommands(line);
    AddStoreCommands(line);
    AddSubscriptionCommands(line);
    AddTrustCommands(line);
    AddWatchCommand(line);
    AddExplainCommands(line);
    AddHistoryCommand(line);
    AddDoctorCommand(line);
    return line.Execute(Arguments());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "vxhost: %s\n", error.what());
    return kUnusable;
  }
}
