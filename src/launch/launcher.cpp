#include "launch/launcher.h"

#include <new>
#include <utility>

#include "launch/acting_as_user.h"
#include "launch/launch_rules.h"
#include "platform/environment.h"
#include "platform/machine.h"
#include "platform/packages.h"
#include "platform/processes.h"
#include "platform/system_services.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using Logging::LogManager;
using Platform::CurrentMachine;
using Platform::TokenType;

constexpr wchar_t kNoSessionApi[] =
    L"Problem in GetUserTokenForCurrentUser. WTSQueryUserToken is not available in this platform.";
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

}  // namespace

std::mutex Launcher::rLock;

Launcher::Launcher()
    : logger(LogManager::SetProvider(Logging::kComponentProvider)), aliasFolder(kAliasFolder) {}

Platform::SharedHandle Launcher::GetUserTokenForCurrentUser(TokenType type) const {
  if (!CurrentMachine().apiSets->IsPresent(Platform::kSessionApiSet)) {
    logger->LogError(kNoSessionApi);
    return nullptr;
  }
  logger->LogInfo(kActingAsUser);
  const auto session = ConsoleSession(*logger);
  return session ? UserTokenOf(*session, type, *logger) : nullptr;
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
  return AskAsUser(token, *logger, [&] { return GetPackageFullNameByFamilyName(familyName); });
}

std::wstring Launcher::GetPackageInstalledPathByFullName(const std::wstring& fullName,
                                                         Platform::RawHandle token) const {
  return AskAsUser(token, *logger, [&] { return GetPackageInstalledPathByFullName(fullName); });
}

std::wstring Launcher::GetPathExpandedImpersonatedAsCurrentUser(const std::wstring& path,
                                                                Platform::RawHandle token) const {
  return AskAsUser(token, *logger,
                   [&] { return ExpandActing(token, path, *logger).value_or(std::wstring()); });
}

std::wstring Launcher::GetAbsolutePathForUWPAlias(const std::wstring& alias) const {
  return aliasFolder + alias;
}

bool Launcher::Run(const std::wstring& alias, const std::wstring& packageFamilyName,
                   const std::wstring& parameter) const {
  if (alias.empty() || packageFamilyName.empty()) return false;
  const auto actingToken = GetUserTokenForCurrentUser(TokenType::Impersonation);
  const auto primaryToken = GetUserTokenForCurrentUser(TokenType::Primary);
  if (actingToken == nullptr) return false;

  const std::wstring program = GetPathExpandedImpersonatedAsCurrentUser(
      GetAbsolutePathForUWPAlias(alias), actingToken.get());
  // Both questions under one impersonation: the answers belong to the same user.
  const std::wstring folder = AskAsUser(actingToken.get(), *logger, [&]() -> std::wstring {
    const std::wstring fullName = GetPackageFullNameByFamilyName(packageFamilyName);
    return fullName.empty() ? fullName : GetPackageInstalledPathByFullName(fullName);
  });
  if (primaryToken == nullptr || program.empty() || folder.empty()) return false;
  return RunExeAsUser(program, folder, primaryToken.get(), parameter);
}

bool Launcher::RunExeAsUser(const std::wstring& executable, const std::wstring& workingDirectory,
                            Platform::RawHandle token, const std::wstring& parameter) const {
  // A null token would start the program with the service's rights.
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

}  // namespace Vx::Tessel::Server::Services::Orvane
