#include "vxhost/commands/service_command.h"

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <windows.h>

#include "hosting/text.h"
#include "servicehost/host_loop.h"
#include "servicehost/log_folder.h"
#include "servicehost/pipe_server.h"
#include "servicehost/power_notifications.h"
#include "servicehost/service_log.h"
#include "vxhost/commands/service_setup_command.h"
#include "vxhost/service/service_manager.h"

namespace Vx::Host {

namespace {

struct RunOptions {
  std::string name = kDefaultServiceName;
  std::string log;
  std::vector<std::string> allowed;
  int seconds = 0;
};

// Shows the records on the console.
class ConsoleTarget final : public LogTarget {
 public:
  explicit ConsoleTarget(Console& shown) : console(shown) {}

  bool Write(const LogEntry& entry) noexcept override {
    try {
      console.Log(entry.line);
      return true;
    } catch (const std::exception&) {
      return false;
    }
  }

 private:
  Console& console;
};

// Signalled by Ctrl+C. Lives as long as the process, because the system calls the handler on a
// thread of its own.
HANDLE StopEvent() {
  static const HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  return event;
}

BOOL WINAPI StopOnCtrlC(DWORD /*kind*/) {
  SetEvent(StopEvent());
  return TRUE;
}

int RunService(const ModuleOptions& module, const RunOptions& options, Console& console) {
  if (module.simulate || module.privateStore) {
    throw std::runtime_error("service run uses the module and the store of the machine");
  }
  PipeOptions pipe;
  pipe.path = PipePath(Wide(options.name));
  for (const std::string& sid : options.allowed) pipe.allowed.push_back(Wide(sid));
  // The module begins to work as soon as it is loaded, and every fault is better found before.
  CheckSids(pipe.allowed);
  if (!options.log.empty() && !std::filesystem::is_directory(FullPath(options.log))) {
    throw std::runtime_error("there is no folder " + Utf8(FullPath(options.log)));
  }
  std::vector<std::unique_ptr<LogTarget>> targets;
  targets.push_back(std::make_unique<ConsoleTarget>(console));
  if (!options.log.empty()) {
    targets.push_back(std::make_unique<LogFolder>(FullPath(options.log), Wide(options.name)));
  }
  ServiceLog log(std::move(targets));
  HostLoop host({.module = module.Path(), .modernStandby = HasModernStandby()}, log);
  const PowerNotifications power(
      [&host](std::uint32_t code) { host.OnPower(code, PowerSource::Notification); });
  const PipeServer server(
      std::move(pipe),
      [&host](const CommandEnvelope& command, const std::wstring& client) {
        return host.Execute(command, client);
      },
      [&log](const wchar_t* level, std::wstring_view message) { log.Add(level, message); });
  static_cast<void>(SetConsoleCtrlHandler(&StopOnCtrlC, TRUE));
  std::fprintf(stderr, "%s runs as process %lu; Ctrl+C ends it\n", options.name.c_str(),
               GetCurrentProcessId());
  const DWORD limit = options.seconds == 0 ? INFINITE : static_cast<DWORD>(options.seconds) * 1000;
  WaitForSingleObject(StopEvent(), limit);
  static_cast<void>(SetConsoleCtrlHandler(&StopOnCtrlC, FALSE));
  return kDone;
}

constexpr char kRunFooter[] =
    "Clients send commands over the pipe \\\\.\\pipe\\VxHost-NAME, see docs/host.md, for example\n"
    "vxhost exec 22 --service=NAME --process PID.\n"
    "  vxhost service run --log C:\\Logs";
}  // namespace

void AddServiceCommands(CommandLine& line) {
  CLI::App& group = line.AddGroup("service", "the module as a running service");

  const auto run = std::make_shared<RunOptions>();
  CLI::App& running =
      line.Add(group, "run", "host the module in this console until Ctrl+C", kRunFooter,
               [&line, run](Console& console) { return RunService(line.Module(), *run, console); });
  running.add_option("--name", run->name, "the name of its pipe")->capture_default_str();
  running.add_option("--log", run->log, "an existing folder for log files");
  running.add_option("--allow", run->allowed,
                     "a further account, as SID: it may then start every trusted program as the\n"
                     "service's account, with its own arguments");
  running.add_option("--seconds", run->seconds, "how long; 0: until Ctrl+C")
      ->check(CLI::Range(0, kLongestSeconds));
  line.UseModule(running);

  AddServiceSetupCommands(line, group);
}

}  // namespace Vx::Host
