#include "launch/launcher.h"

#include <cstddef>
#include <new>
#include <string_view>
#include <utility>

#include "launch/launch_rules.h"
#include "platform/environment.h"
#include "platform/machine.h"
#include "platform/packages.h"
#include "platform/processes.h"
#include "platform/system_services.h"
#include "security/trusted_program.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using Logging::LogManager;
using Platform::CurrentMachine;
using Platform::TokenType;

constexpr wchar_t kNoSessionApi[] =
    L"Problem in GetUserTokenForCurrentUser. WTSQueryUserToken is not available in this platform.";
constexpr wchar_t kNoConsoleSession[] =
    L"Problem while detecting active console session ID. This could be caused if the business "
    L"logic ran while the user was not logged in.";
constexpr wchar_t kTokenQueryFailed[] = L"Problem while querying user's access token.";
constexpr wchar_t kTokenCopyFailed[] = L"Problem while duplicating the user's access token.";
constexpr wchar_t kImpersonationFailed[] = L"Problem while impersonating logged in user.";
constexpr wchar_t kExpansionFailed[] = L"Problem while expanding path.";
constexpr wchar_t kRevertFailed[] = L"Problem while reverting the impersonation.";
constexpr wchar_t kNoPackageLength[] =
    L"Problem while finding out the size of the buffer. Returned length is 0.";
constexpr wchar_t kNoBuffer[] = L"Problem while allocating buffer.";
constexpr wchar_t kPackageQueryFailed[] = L"Problem while finding package's resources.";
constexpr wchar_t kPackageFound[] = L"Found package's full name for %ls: %ls";
constexpr wchar_t kPathLengthFailed[] = L"Problem while finding out the size of the buffer.";
constexpr wchar_t kPathQueryFailed[] = L"Problem while finding the full path for the package.";
constexpr wchar_t kCommandLineTooLong[] =
    L"Problem while building the command line: it is too long.";
constexpr wchar_t kStartFailed[] = L"Problem while creating process as user %d.";

constexpr wchar_t kAliasFolder[] = L"%userprofile%\\AppData\\Local\\Microsoft\\WindowsApps\\";
constexpr wchar_t kProfile[] = L"%userprofile%";

constexpr std::size_t kExpandedPathChars = 520;

constexpr std::wstring_view kLogonProcess = L"winlogon.exe";
// The console user's desktop. If no desktop is named, CreateProcessAsUser gives a program in
// another logon session its own window station, which is not visible.
constexpr wchar_t kUserDesktop[] = L"winsta0\\default";
constexpr std::size_t kMaxProcesses = 2048;

// Returns the SYSTEM token of a session's logon process, or error 0 if there is no such process.
Platform::Result<Platform::UniqueHandle> SystemTokenIn(std::uint32_t session) {
  const auto process = LogonProcessIn(session);
  if (!process) return Platform::Failure(0);
  return Platform::CurrentMachine().processes->PrimaryToken(*process);
}

Records::Reason WhyNoToken(Platform::ErrorCode error) {
  return error == 0 ? Records::Reason::NoSession : Records::Reason::Windows;
}

}  // namespace

void LogRefusedStep(Platform::ActingStep step, Platform::ErrorCode /*error*/) {
  const Logging::TraceLogger& logger = *LogManager::SetProvider(Logging::kComponentProvider);
  switch (step) {
    case Platform::ActingStep::Session:
      return logger.LogWarning(kNoConsoleSession);
    case Platform::ActingStep::SessionApi:
      return;
    case Platform::ActingStep::Token:
      return logger.LogWarning(kTokenQueryFailed);
    case Platform::ActingStep::TokenCopy:
      return logger.LogWarning(kTokenCopyFailed);
    case Platform::ActingStep::Impersonation:
      return logger.LogWarning(kImpersonationFailed);
    case Platform::ActingStep::Revert:
      return logger.LogError(kRevertFailed);
  }
}

std::optional<std::wstring> ExpandAsUser(Platform::RawHandle token, const std::wstring& path) {
  return Platform::AsUser(token, &LogRefusedStep, [&]() -> std::optional<std::wstring> {
    auto expanded = CurrentMachine().environment->ExpandForUser(token, path, kExpandedPathChars);
    if (expanded) return *std::move(expanded);
    LogManager::SetProvider(Logging::kComponentProvider)->LogWarning(kExpansionFailed);
    return std::nullopt;
  });
}

Launcher::Launcher()
    : logger(LogManager::SetProvider(Logging::kComponentProvider)), aliasFolder(kAliasFolder) {}

Platform::SharedHandle Launcher::GetUserTokenForCurrentUser(TokenType type,
                                                            Platform::OneLogon* same) const {
  if (!CurrentMachine().apiSets->IsPresent(Platform::kSessionApiSet)) {
    logger->LogError(kNoSessionApi);
    return nullptr;
  }
  logger->LogInfo(kActingAsUser);
  return Platform::ConsoleUserToken(type, &LogRefusedStep, same);
}

std::wstring Launcher::GetPackageFullNameByFamilyName(const std::wstring& familyName) const {
  const std::lock_guard guard(rLock);
  try {
    const auto found = CurrentMachine().packages->FindByFamily(familyName);
    if (found.bufferLength == 0) {
      logger->LogWarning(kNoPackageLength);
      return {};
    }
    if (found.error != 0 || found.fullNames.empty()) {
      logger->LogWarning(kPackageQueryFailed);
      return {};
    }
    logger->LogInfo(kPackageFound, familyName.c_str(), found.fullNames.front().c_str());
    return found.fullNames.front();
  } catch (const std::bad_alloc&) {
    logger->LogWarning(kNoBuffer);
    return {};
  }
}

std::wstring Launcher::GetPackageInstalledPathByFullName(const std::wstring& fullName) const {
  auto found = CurrentMachine().packages->PathByFullName(fullName);
  if (found.sizeError != 0) {
    logger->LogWarning(kPathLengthFailed);
    return {};
  }
  if (found.error != 0) {
    logger->LogWarning(kPathQueryFailed);
    return {};
  }
  return std::move(found.path);
}

std::wstring Launcher::GetPackageFullNameByFamilyName(const std::wstring& familyName,
                                                      Platform::RawHandle token) const {
  return Platform::AsUser(token, &LogRefusedStep,
                          [&] { return GetPackageFullNameByFamilyName(familyName); });
}

std::wstring Launcher::GetPackageInstalledPathByFullName(const std::wstring& fullName,
                                                         Platform::RawHandle token) const {
  return Platform::AsUser(token, &LogRefusedStep,
                          [&] { return GetPackageInstalledPathByFullName(fullName); });
}

std::wstring Launcher::GetPathExpandedImpersonatedAsCurrentUser(const std::wstring& path,
                                                                Platform::RawHandle token) const {
  return ExpandAsUser(token, path).value_or(std::wstring());
}

std::wstring Launcher::GetAbsolutePathForUWPAlias(const std::wstring& alias) const {
  return aliasFolder + alias;
}

bool Launcher::Run(const std::wstring& alias, const std::wstring& packageFamilyName,
                   const std::wstring& parameter) const {
  if (alias.empty() || packageFamilyName.empty()) return false;
  // One user's program must not be started with another user's token.
  Platform::OneLogon user;
  const auto actingToken = GetUserTokenForCurrentUser(TokenType::Impersonation, &user);
  const auto primaryToken = GetUserTokenForCurrentUser(TokenType::Primary, &user);
  if (actingToken == nullptr) return false;

  const std::wstring program = GetPathExpandedImpersonatedAsCurrentUser(
      GetAbsolutePathForUWPAlias(alias), actingToken.get());
  // Makes both queries under one impersonation, so that both apply to the same user.
  const auto installFolder = [&]() -> std::wstring {
    const std::wstring fullName = GetPackageFullNameByFamilyName(packageFamilyName);
    return fullName.empty() ? fullName : GetPackageInstalledPathByFullName(fullName);
  };
  const std::wstring folder = Platform::AsUser(actingToken.get(), &LogRefusedStep, installFolder);
  if (primaryToken == nullptr || program.empty() || folder.empty()) return false;
  return RunExeAsUser(program, folder, primaryToken.get(), parameter);
}

bool Launcher::RunExeAsUser(const std::wstring& executable, const std::wstring& workingDirectory,
                            Platform::RawHandle token, const std::wstring& parameter) const {
  // With a null token the program would start with the service's rights.
  if (token == nullptr) return false;
  logger->LogInfo(kActingAsUser);
  auto commandLine = AppCommandLine(executable, parameter);
  if (!commandLine) {
    logger->LogWarning(kCommandLineTooLong);
    return false;
  }
  auto environment = CurrentMachine().environment->Block(token);
  if (!environment || environment->empty()) return false;

  Platform::ProcessStart start;
  start.application = executable;
  start.commandLine = *std::move(commandLine);
  start.workingDirectory = workingDirectory;
  start.environment = *std::move(environment);
  const auto started = CurrentMachine().processes->Start(token, start);
  if (!started) logger->LogWarning(kStartFailed, started.Error());
  return static_cast<bool>(started);
}

bool Launcher::IsRealUserSession(std::wstring& profilePath) const {
  profilePath.clear();
  const auto token = GetUserTokenForCurrentUser(TokenType::Impersonation);
  if (token != nullptr) {
    profilePath = GetPathExpandedImpersonatedAsCurrentUser(kProfile, token.get());
  }
  return IsRealUserProfile(profilePath);
}

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
  const Platform::Machine& machine = CurrentMachine();

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
