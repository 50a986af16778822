#include <cstdio>
#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <windows.h>

#include <CLI/CLI.hpp>

#include "host/vxhost/console.h"
#include "host/vxhost/loaded_module.h"
#include "host/vxhost/log_listener.h"
#include "host/vxhost/scenario.h"
#include "host/vxhost/text.h"

namespace {

using namespace Vx::Host;

constexpr char kAbout[] =
    "The development host: loads the service module and plays the service host's part.\n"
    "Exit codes: 0 done; 1 the command answered a failure or an expectation was not met;\n"
    "2 wrong usage, or the module or a file cannot be used.";

enum ExitCode { kDone = 0, kNotMet = 1, kUnusable = 2 };

// The module beside this program.
std::wstring DefaultModule() {
  wchar_t path[MAX_PATH];
  const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
  const std::wstring program(path, length);
  return program.substr(0, program.rfind(L'\\') + 1) + L"OrvaneService.dll";
}

std::wstring FullPath(const std::string& path) {
  wchar_t full[32768];
  const std::wstring wide = Wide(path);
  const DWORD length = GetFullPathNameW(wide.c_str(), 32768, full, nullptr);
  return {full, length};
}

// A request given as it is, or as @FILE.
std::wstring RequestText(const std::string& argument) {
  if (argument.rfind('@', 0) == 0) return ReadTextFile(FullPath(argument.substr(1)));
  return Wide(argument);
}

// The real module and a service of it, its log lines shown and kept.
class RealHost {
 public:
  RealHost(const std::string& dll, Console& where)
      : listener([this, &where](const LogLine& line) {
          where.Log(line);
          recorder.Add(line);
        }),
        module(dll.empty() ? DefaultModule() : FullPath(dll)),
        session(module.NewService()) {}

  LogRecorder recorder;

 private:
  LogListener listener;
  LoadedModule module;

 public:
  ServiceSession session;
};

std::map<std::wstring, std::wstring> Definitions(const std::vector<std::string>& arguments) {
  std::map<std::wstring, std::wstring> definitions;
  for (const std::string& argument : arguments) {
    const std::size_t equals = argument.find('=');
    if (equals == std::string::npos) throw std::runtime_error("--define wants NAME=VALUE");
    definitions[Wide(argument.substr(0, equals))] = Wide(argument.substr(equals + 1));
  }
  return definitions;
}

// A folder for the stored values of one run in the place of the machine's, removed at the end.
class PrivateStore {
 public:
  PrivateStore()
      : folder(std::filesystem::temp_directory_path() /
               (L"vxhost-" + std::to_wstring(GetCurrentProcessId()))) {
    std::filesystem::create_directories(folder);
    SetEnvironmentVariableW(L"ProgramData", folder.wstring().c_str());
  }
  PrivateStore(const PrivateStore&) = delete;
  PrivateStore& operator=(const PrivateStore&) = delete;
  ~PrivateStore() {
    std::error_code ignored;  // the module makes these and nothing else
    for (const wchar_t* name :
         {L"Vx\\SharedServices\\shared_store.dat", L"Vx\\SharedServices", L"Vx"}) {
      std::filesystem::remove(folder / name, ignored);
    }
    std::filesystem::remove(folder, ignored);
  }

 private:
  std::filesystem::path folder;
};

struct Options {
  std::string dll;
  std::uint32_t id = 0;
  std::string request = "{}";
  std::string caller = "vxhost";
  std::string scenario;
  std::vector<std::string> definitions;
  bool privateStore = false;
  std::vector<std::uint32_t> power;
  std::vector<std::uint32_t> sessions;
  int seconds = 5;
};

int Exec(const Options& options, Console& console) {
  RealHost host(options.dll, console);
  const std::wstring request = RequestText(options.request);
  console.Request(options.id, request);
  const Answer answer = host.session.Execute(options.id, request, Wide(options.caller));
  console.Result(answer);
  return answer.code == 0 ? kDone : kNotMet;
}

int Scenario(const Options& options, Console& console) {
  const auto store = options.privateStore ? std::make_unique<PrivateStore>() : nullptr;
  RealHost host(options.dll, console);
  Stage stage{.session = host.session, .log = host.recorder, .console = console};
  const bool met =
      PlayScenario(FullPath(options.scenario), Definitions(options.definitions), stage);
  console.Line(met ? "\nEverything that was expected happened."
                   : "\nNot everything that was expected happened: see the lines with !!");
  return met ? kDone : kNotMet;
}

int Events(const Options& options, Console& console) {
  RealHost host(options.dll, console);
  for (const std::uint32_t code : options.power) {
    console.Line("-> power event " + std::to_string(code));
    host.session.Slots().power_event_task(code);
  }
  for (const std::uint32_t code : options.sessions) {
    console.Line("-> session change " + std::to_string(code));
    host.session.Slots().OnSessionChange(code);
  }
  // Deliveries run on threads of their own.
  Sleep(static_cast<DWORD>(options.seconds) * 1000);
  return kDone;
}

}  // namespace

int main(int argc, char** argv) {
  SetConsoleOutputCP(CP_UTF8);
  CLI::App app(kAbout, "vxhost");
  app.require_subcommand(1);
  Options options;
  app.add_option("--dll", options.dll, "the module (default: OrvaneService.dll beside vxhost)");

  auto* exec = app.add_subcommand("exec", "run one command and print its answer");
  exec->add_option("id", options.id, "the command's number")->required();
  exec->add_option("request", options.request, "the request's JSON, or @FILE")
      ->capture_default_str();
  exec->add_option("--caller", options.caller, "the client's identity")->capture_default_str();

  auto* scenario = app.add_subcommand("scenario", "play a scenario file and check what it expects");
  scenario->add_option("file", options.scenario, "the scenario")->required();
  scenario->add_option("--define", options.definitions, "NAME=VALUE for ${NAME} in the scenario");

  scenario->add_flag("--private-store", options.privateStore,
                     "keep stored values in a folder of this run");

  auto* events = app.add_subcommand("events", "send power and session events");
  events->add_option("--power", options.power, "power broadcast codes (PBT_)");
  events->add_option("--session", options.sessions, "session change codes (WTS_SESSION_)");
  events->add_option("--seconds", options.seconds, "how long deliveries may take")
      ->capture_default_str();

  try {
    app.parse(argc, argv);
    Console console;
    if (exec->parsed()) return Exec(options, console);
    if (scenario->parsed()) return Scenario(options, console);
    return Events(options, console);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kDone : kUnusable;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "vxhost: %s\n", error.what());
    return kUnusable;
  }
}
