// Compares the time to start a trusted program, and to refuse one, with that of just creating its
// process.
//
// Usage: launch_bench [--brief] [--json FILE]
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <windows.h>

#include "bench/ratio_table.h"
#include "events/event_commands.h"
#include "json/json_object.h"
#include "platform/environment.h"
#include "platform/machine.h"
#include "platform/processes.h"
#include "platform/trust_provider.h"
#include "platform/unique_handle.h"
#include "support/stand_in_logon.h"
#include "support/temp_folder.h"

namespace {

using namespace Vx;
using namespace Vx::Bench;
using Tessel::Server::Services::Orvane::LaunchCommand;

constexpr DWORD kLongestWait = 60'000;  // milliseconds

// The real capability. Also keeps the started programs, so that none outlives its measurement.
class KeptProcesses final : public Platform::Processes {
 public:
  explicit KeptProcesses(Platform::Processes& real) : processes(real) {}

  Platform::Result<std::uint32_t> Start(Platform::RawHandle token,
                                        const Platform::ProcessStart& start) override {
    auto started = processes.Start(token, start);
    if (started) Keep(OpenProcess(SYNCHRONIZE, FALSE, *started));
    return started;
  }
  std::vector<std::uint32_t> Ids(std::size_t limit) const override { return processes.Ids(limit); }
  std::optional<std::wstring> ImagePath(std::uint32_t id) const override {
    return processes.ImagePath(id);
  }
  std::optional<std::uint32_t> Session(std::uint32_t id) const override {
    return processes.Session(id);
  }
  Platform::Result<Platform::UniqueHandle> PrimaryToken(std::uint32_t id) const override {
    return processes.PrimaryToken(id);
  }

  void Keep(HANDLE process) { running.emplace_back(process); }

  std::size_t Running() const { return running.size(); }

  void WaitForAll() {
    for (const auto& process : running) WaitForSingleObject(process.get(), kLongestWait);
    running.clear();
  }

 private:
  Platform::Processes& processes;
  std::vector<Platform::UniqueHandle> running;
};

LaunchCommand CommandFor(const std::wstring& path) {
  std::wstring escaped;
  for (const wchar_t unit : path) escaped.append(unit == L'\\' ? 2 : 1, unit);
  return LaunchCommand(Json::JsonObject::Parse(L"{\"path\":\"" + escaped + L"\"}"));
}

void StartBare(const std::wstring& path, KeptProcesses& processes) {
  std::wstring line = L"\"" + path + L"\"";
  STARTUPINFOW start{};
  start.cb = sizeof start;
  PROCESS_INFORMATION started{};
  if (CreateProcessW(path.c_str(), line.data(), nullptr, nullptr, FALSE,
                     CREATE_NEW_CONSOLE | NORMAL_PRIORITY_CLASS, nullptr, nullptr, &start,
                     &started) == FALSE) {
    throw std::runtime_error("cannot start the program");
  }
  CloseHandle(started.hThread);
  processes.Keep(started.hProcess);
}

void Measure(RatioTable& table) {
  const Tests::ProtectedFolder folder;
  const std::wstring trusted = folder.Hold(L"idle_program.exe");
  const std::wstring refused = folder.Hold(L"unsigned_program.exe");
  // Ends by itself after a minute, which is longer than any row takes.
  std::optional<Tests::StandInLogon> logon(folder.Path());
  const auto renewLogon = [&] {
    logon.reset();
    logon.emplace(folder.Path());
  };
  KeptProcesses processes(*Platform::CurrentMachine().processes);
  const Platform::MachineScope scope(
      [&](Platform::Machine& machine) { machine.processes = &processes; });

  LaunchCommand launch = CommandFor(trusted);
  launch.Execute();
  if (processes.Running() != 1) throw std::runtime_error("the signed program is not started");
  LaunchCommand refusal = CommandFor(refused);
  refusal.Execute();
  if (processes.Running() != 1) throw std::runtime_error("the unsigned program is started");
  processes.WaitForAll();

  const auto settle = [&] { processes.WaitForAll(); };
  const auto start = [&] {
    const std::size_t before = processes.Running();
    launch.Execute();
    if (processes.Running() == before) throw std::runtime_error("the program is not started");
  };
  const auto bare = [&] { StartBare(trusted, processes); };
  table.Compare("launch of a signed 1 MiB program", "bare process creation", 1.25, 1, start, bare,
                settle);
  renewLogon();
  table.Compare(
      "refusal of the same program without signature", "bare process creation", 0.10, 1,
      [&] { refusal.Execute(); }, bare, settle);

  // Makes only the calls to Windows that the checks need.
  const Platform::TrustProvider& provider = *Platform::CurrentMachine().trustProvider;
  const auto askWindows = [&](const std::wstring& path) {
    Platform::CatalogFailure failure;
    Bench::Keep(provider.FindCatalog(path, failure));
    Bench::Keep(provider.VerifyEmbedded(path, 0));
  };
  renewLogon();
  table.Compare(
      "the same launch", "process creation, catalog search, verification", 1.05, 1, start,
      [&] {
        askWindows(trusted);
        bare();
      },
      settle);
  // Makes the further calls that a start in the user's session needs.
  const auto findLogon = [&] {
    for (const std::uint32_t id : processes.Ids(2048)) {
      const auto image = processes.ImagePath(id);
      if (image && image->ends_with(L"\\winlogon.exe")) return processes.PrimaryToken(id);
    }
    throw std::runtime_error("there is no logon process");
  };
  renewLogon();
  table.Compare(
      "the same launch", "these, the system's environment, the logon process's token", 1.05, 1,
      start,
      [&] {
        askWindows(trusted);
        Bench::Keep(Platform::CurrentMachine().environment->Block(nullptr));
        Bench::Keep(findLogon());
        bare();
      },
      settle);
  renewLogon();
  table.Compare(
      "the same refusal", "catalog search, verification", 1.03, 1, [&] { refusal.Execute(); },
      [&] { askWindows(refused); });
  // Without the lock, another program could change the file between the verdict and the start.
  table.Compare(
      "the same refusal", "these, and a lock on the file", 1.03, 1, [&] { refusal.Execute(); },
      [&] {
        const Platform::UniqueHandle lock(CreateFileW(refused.c_str(), GENERIC_READ,
                                                      FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                                      FILE_ATTRIBUTE_NORMAL, nullptr));
        askWindows(refused);
      });
}

}  // namespace

int main(int argc, char** argv) {
  return RunBenchmarks(argc, argv, [](RatioTable& table, Effort) { Measure(table); });
}
