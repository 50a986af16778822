// The subcommands that load the module and play the service host's part.
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>

#include <windows.h>

#include "host/vxhost/commands.h"
#include "host/vxhost/loaded_module.h"
#include "host/vxhost/log_listener.h"
#include "host/vxhost/scenario.h"
#include "host/vxhost/text.h"

namespace Vx::Host {

namespace {

constexpr DWORD kLongestPath = 32768;  // characters

// The module beside this program.
std::wstring DefaultModule() {
  std::wstring program(kLongestPath, L'\0');
  program.resize(GetModuleFileNameW(nullptr, program.data(), kLongestPath));
  return program.substr(0, program.rfind(L'\\') + 1) + L"OrvaneService.dll";
}

// The real module and a service of it, its log lines shown and kept. Made in this order and gone in
// the other: the module may log until it is unloaded.
struct RealHost {
  RealHost(const std::string& dll, Console& console)
      : listener([this, &console](const LogLine& line) {
          console.Log(line);
          recorder.Add(line);
        }),
        module(dll.empty() ? DefaultModule() : FullPath(dll)),
        session(module.NewService()) {}

  LogRecorder recorder;
  LogListener listener;
  LoadedModule module;
  ServiceSession session;
};

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

std::unique_ptr<PrivateStore> StoreOf(const Options& options) {
  return options.privateStore ? std::make_unique<PrivateStore>() : nullptr;
}

std::map<std::wstring, std::wstring> Definitions(const std::vector<std::string>& arguments) {
  std::map<std::wstring, std::wstring> definitions;
  for (const std::string& argument : arguments) {
    const std::size_t equals = argument.find('=');
    if (equals == std::string::npos) throw std::runtime_error("--define wants NAME=VALUE");
    definitions[Wide(argument.substr(0, equals))] = Wide(argument.substr(equals + 1));
  }
  return definitions;
}

}  // namespace

std::wstring FullPath(const std::string& path) {
  std::wstring full(kLongestPath, L'\0');
  full.resize(GetFullPathNameW(Wide(path).c_str(), kLongestPath, full.data(), nullptr));
  if (full.empty()) throw std::runtime_error(path + " is not a path");
  return full;
}

std::wstring TextOrFile(const std::string& argument) {
  if (argument.rfind('@', 0) == 0) return ReadTextFile(FullPath(argument.substr(1)));
  return Wide(argument);
}

int Exec(const Options& options, Console& console) {
  const auto store = StoreOf(options);
  RealHost host(options.dll, console);
  const std::wstring request = TextOrFile(options.request);
  console.Request(options.id, request);
  const Answer answer = host.session.Execute(options.id, request, Wide(options.caller));
  console.Result(answer);
  return answer.code == 0 ? kDone : kNotMet;
}

int Scenario(const Options& options, Console& console) {
  const auto store = StoreOf(options);
  RealHost host(options.dll, console);
  Stage stage{.session = host.session, .log = host.recorder, .console = console};
  const bool met = PlayScenario(FullPath(options.file), Definitions(options.definitions), stage);
  console.Line(met ? "\nEverything that was expected happened."
                   : "\nNot everything that was expected happened: see the lines with !!");
  return met ? kDone : kNotMet;
}

int Events(const Options& options, Console& console) {
  const auto store = StoreOf(options);
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

}  // namespace Vx::Host
