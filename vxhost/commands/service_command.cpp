#include "vxhost/commands/service_command.h"

#include <chrono>
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
#include "vxhost/service/pipe_client.h"
#include "vxhost/service/service_manager.h"

namespace Vx::Host {

namespace {

constexpr std::chrono::seconds kPatience{10};

struct RunOptions {
  std::string name = kDefaultServiceName;
  std::string log;
  std::vector<std::string> allowed;
  int seconds = 0;
};

struct ExecOptions {
  std::string name = kDefaultServiceName;
  std::uint32_t process = 0;
  std::uint32_t id = 0;
  std::string request = "{}";
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
  if (!options.log.empty()) targets.push_back(std::make_unique<LogFolder>(FullPath(options.log)));
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

int ExecInService(const ExecOptions& options, Console& console) {
  const std::wstring name = Wide(options.name);
  PipeClient client = options.process == 0 ? ConnectToService(name)
                                           : PipeClient(PipePath(name), options.process, kPatience);
  const CommandEnvelope command{options.id, TextOrFile(options.request)};
  console.Request(command.id, command.request);
  const ResultEnvelope result = client.Execute(command);
  console.Result({result.code, result.response});
  return result.code == 0 ? kDone : kNotMet;
}

constexpr char kRunFooter[] =
    "Clients send commands over the pipe \\\\.\\pipe\\VxHost-NAME, see docs/host.md.\n"
    "  vxhost service run --log C:\\Logs";
constexpr char kExecFooter[] =
    "Sends nothing unless the pipe belongs to the process that the service manager names, or to\n"
    "that of --process, which \"service run\" names.\n"
    "Exit code 0 for result code 0x00000000, else 1.\n"
    "  vxhost service exec 22\n"
    "  vxhost service exec 22 --name Trial --process 4711";

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

  const auto exec = std::make_shared<ExecOptions>();
  CLI::App& executing =
      line.Add(group, "exec", "send one command to a running service", kExecFooter,
               [exec](Console& console) { return ExecInService(*exec, console); });
  executing.add_option("id", exec->id, "the number of the command")->required();
  executing.add_option("request", exec->request, "the request's JSON, @FILE or @-");
  executing.add_option("--name", exec->name, "the name of its pipe")->capture_default_str();
  executing.add_option("--process", exec->process,
                       "its process, if it is not the service that is installed by that name");

  AddServiceSetupCommands(line, group);
}

}  // namespace Vx::Host
