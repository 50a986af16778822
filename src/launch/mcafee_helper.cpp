#include "launch/mcafee_helper.h"

#include <cstddef>
#include <cstdint>
#include <utility>

#include "platform/environment.h"
#include "platform/impersonation.h"
#include "platform/machine.h"
#include "platform/sessions.h"
#include "platform/system_services.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using Logging::LogManager;

constexpr wchar_t kActingAsUser[] = L"Attempting to impersonate logged in user.";
constexpr wchar_t kNoConsoleSession[] =
    L"Problem while detecting active console session ID. This could be caused if the business "
    L"logic ran while the user was not logged in.";
constexpr wchar_t kNoSessionApi[] =
    L"Problem in McAfeeHelper::expand_path_impersonated_as_loggedin_user(): WTSQueryUserToken is "
    L"not available on this platform";
constexpr wchar_t kTokenQueryFailed[] = L"Problem while querying user's access token.";
constexpr wchar_t kTokenCopyFailed[] = L"Problem while duplicating the user's access token.";
constexpr wchar_t kImpersonationFailed[] = L"Problem while impersonating logged in user.";
constexpr wchar_t kExpansionFailed[] = L"Problem while expanding path.";
constexpr wchar_t kRevertFailed[] = L"Problem while reverting the impersonation.";

constexpr std::size_t kMaxPath = 520;  // characters with the terminator

void LogRevertFailure() {
  LogManager::SetProvider(Logging::kComponentProvider)->LogError(kRevertFailed);
}

}  // namespace

McAfeeHelper::McAfeeHelper() : logger(LogManager::SetProvider(Logging::kComponentProvider)) {}

bool McAfeeHelper::expand_path_impersonated_as_loggedin_user(const std::wstring& path,
                                                             std::wstring& expanded) const {
  logger->LogInfo(kActingAsUser);
  return RunAsLoggedInUser([&](Platform::RawHandle token) {
    auto answer = Platform::CurrentMachine().environment->ExpandForUser(token, path, kMaxPath);
    if (!answer) {
      logger->LogWarning(kExpansionFailed);
      return false;
    }
    expanded = *std::move(answer);
    return true;
  });
}

bool McAfeeHelper::RunAsLoggedInUser(
    const std::function<bool(Platform::RawHandle token)>& work) const {
  const Platform::Machine& machine = Platform::CurrentMachine();
  const std::uint32_t session = machine.sessions->ActiveConsoleSession();
  if (session == Platform::kNoSession) {
    logger->LogWarning(kNoConsoleSession);
    return false;
  }
  if (!machine.apiSets->IsPresent(Platform::kSessionApiSet)) {
    logger->LogError(kNoSessionApi);
    return false;
  }
  const auto userToken = machine.sessions->QueryUserToken(session);
  if (!userToken) {
    logger->LogWarning(kTokenQueryFailed);
    return false;
  }
  const auto token =
      machine.sessions->DuplicateUserToken(userToken->get(), Platform::TokenType::Impersonation);
  if (!token) {
    logger->LogWarning(kTokenCopyFailed);
    return false;
  }
  const Platform::Impersonation asUser(token->get(), &LogRevertFailure);
  if (!asUser) {
    logger->LogWarning(kImpersonationFailed);
    return false;
  }
  return work(token->get());
}

}  // namespace Vx::Tessel::Server::Services::Orvane
