#include "launch/session_launch.h"

#include <cstddef>
#include <string_view>
#include <utility>

#include "launch/launch_rules.h"
#include "platform/environment.h"
#include "platform/machine.h"
#include "platform/processes.h"
#include "platform/unique_handle.h"
#include "security/trusted_program.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr std::wstring_view kLogonProcess = L"winlogon.exe";
// The console user's desktop. Without a name, CreateProcessAsUser gives a program under another
// logon session a window station of its own, which is not visible (documented for STARTUPINFO).
constexpr wchar_t kUserDesktop[] = L"winsta0\\default";
constexpr std::size_t kMaxProcesses = 2048;

// Returns the SYSTEM token of a session's logon process. Null on any failure.
Platform::UniqueHandle SystemTokenIn(std::uint32_t session) {
  const auto process = LogonProcessIn(session);
  if (!process) return nullptr;
  auto token = Platform::CurrentMachine().processes->PrimaryToken(*process);
  return token ? std::move(*token) : nullptr;
}

}  // namespace

std::optional<std::uint32_t> LogonProcessIn(std::uint32_t session) {
  const Platform::Processes& processes = *Platform::CurrentMachine().processes;
  for (const std::uint32_t id : processes.Ids(kMaxProcesses)) {
    const auto image = processes.ImagePath(id);
    if (!image || FileNameOf(*image) != kLogonProcess) continue;
    if (processes.Session(id) == session) return id;
  }
  return std::nullopt;
}

bool CanLaunchInSession(std::uint32_t session) {
  return SystemTokenIn(session) != nullptr;
}

int LaunchProcessInSession(const Security::TrustedProgram& program, const std::wstring& arguments,
                           const std::wstring& workingDirectory, std::uint32_t session,
                           std::uint32_t& processId, const std::wstring& packageFolder) {
  const Platform::Machine& machine = Platform::CurrentMachine();

  auto environment = machine.environment->Block(nullptr);
  // Without an environment block the program would inherit the service's variables.
  if (!environment || environment->empty()) return 0;

  // With a null token the program would start in the service's own session.
  const Platform::UniqueHandle token = SystemTokenIn(session);
  if (token == nullptr) return 0;

  Platform::ProcessStart start;
  start.application = program.Path();
  start.commandLine = SessionCommandLine(program.Path(), arguments);
  start.workingDirectory = SessionWorkingDirectory(workingDirectory, program.Path());
  start.environment = packageFolder.empty() ? *std::move(environment)
                                            : EnvironmentForPackage(*environment, packageFolder);
  start.desktop = kUserDesktop;
  const auto started = machine.processes->Start(token.get(), start);
  if (!started) return 0;
  processId = *started;
  return 1;
}

}  // namespace Vx::Tessel::Server::Services::Orvane
