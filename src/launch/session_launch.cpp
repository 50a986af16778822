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
// The console user's desktop. If no desktop is named, CreateProcessAsUser gives a program in
// another logon session its own window station, which is not visible.
constexpr wchar_t kUserDesktop[] = L"winsta0\\default";
constexpr std::size_t kMaxProcesses = 2048;

// Returns the SYSTEM token of a session's logon process, or error 0 if there is no such process.
Platform::Result<Platform::UniqueHandle> SystemTokenIn(std::uint32_t session) {
  const auto process = LogonProcessIn(session);
  if (!process) return Platform::Result<Platform::UniqueHandle>::Failure(0);
  return Platform::CurrentMachine().processes->PrimaryToken(*process);
}

Records::Reason WhyNoToken(Platform::ErrorCode error) {
  return error == 0 ? Records::Reason::NoSession : Records::Reason::Windows;
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

Records::Reason WhyNoLaunchIn(std::uint32_t session) {
  const auto token = SystemTokenIn(session);
  return token ? Records::Reason::None : WhyNoToken(token.Error());
}

Records::Outcome LaunchProcessInSession(const Security::TrustedProgram& program,
                                        const std::wstring& arguments,
                                        const std::wstring& workingDirectory, std::uint32_t session,
                                        const std::wstring& packageFolder) {
  using Records::Decision;
  using Records::Reason;
  const Platform::Machine& machine = Platform::CurrentMachine();

  auto environment = machine.environment->Block(nullptr);
  // Without an environment block, the program would inherit the service's variables.
  if (!environment || environment->empty()) {
    return {Decision::NotStarted, Reason::Windows, environment.Error()};
  }

  // With a null token the program would start in the service's own session.
  const auto token = SystemTokenIn(session);
  if (!token) return {Decision::NotStarted, WhyNoToken(token.Error()), token.Error()};

  Platform::ProcessStart start;
  start.application = program.Path();
  start.commandLine = SessionCommandLine(program.Path(), arguments);
  start.workingDirectory = SessionWorkingDirectory(workingDirectory, program.Path());
  start.environment = packageFolder.empty() ? *std::move(environment)
                                            : EnvironmentForPackage(*environment, packageFolder);
  start.desktop = kUserDesktop;
  const auto started = machine.processes->Start(token->get(), start);
  if (!started) return {Decision::NotStarted, Reason::Windows, started.Error()};
  return {Decision::Ran, Reason::None, *started};
}

}  // namespace Vx::Tessel::Server::Services::Orvane
