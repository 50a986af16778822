#include "vxhost/commands/commands.h"

#include <chrono>
#include <exception>

#include <windows.h>

#include "hosting/text.h"
#include "vxhost/service/service_manager.h"
#include "vxhost/store/store_look.h"

namespace Vx::Hosting::Tool {

namespace {

constexpr HoldLimits kNoWait{.notice = std::chrono::seconds(2), .timeout = std::chrono::seconds(1)};

constexpr const char* kNext[] = {
    "vxhost doctor           what this machine lacks, and how to fix it",
    "vxhost history          the outcome of each delivery, from the service's log",
    "vxhost subscriptions    what is stored, and why some of it never runs",
    "vxhost --help           every subcommand",
};

std::string ServiceState() {
  const auto report = ServiceManager().Query(Wide(kDefaultServiceName));
  if (!report) return "not installed: vxhost service install";
  return report->state == SERVICE_RUNNING ? "running, process " + std::to_string(report->process)
                                          : "installed, but not running: vxhost service start";
}

std::string StoreState() {
  const StoreLook look = LookAtStore(kNoWait);
  const StoreVerdict verdict = DiagnoseWithLists(look);
  const bool usable =
      verdict.IsSound() || look.reading.state == Tessel::Server::Storage::StoreState::Missing;
  return verdict.text + (usable ? "" : ": vxhost store verify");
}

std::string Subscriptions() {
  const std::size_t count = SubscriptionsOf(LookAtStore(kNoWait)).size();
  return count == 0 ? "none" : std::to_string(count) + " stored";
}

}  // namespace

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
  console.Line("");
  for (const char* next : kNext) console.Line(next);
  return kDone;
}

}  // namespace Vx::Hosting::Tool
