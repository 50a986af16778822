#include "launch/acting_as_user.h"

#include <cstddef>

#include "platform/environment.h"
#include "platform/machine.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kNoConsoleSession[] =
    L"Problem while detecting active console session ID. This could be caused if the business "
    L"logic ran while the user was not logged in.";
constexpr wchar_t kTokenQueryFailed[] = L"Problem while querying user's access token.";
constexpr wchar_t kTokenCopyFailed[] = L"Problem while duplicating the user's access token.";
constexpr wchar_t kExpansionFailed[] = L"Problem while expanding path.";
constexpr wchar_t kRevertFailed[] = L"Problem while reverting the impersonation.";

constexpr std::size_t kExpandedPathChars = 520;

}  // namespace

std::optional<std::uint32_t> ConsoleSession(const Logging::TraceLogger& logger) {
  const std::uint32_t session = Platform::CurrentMachine().sessions->ActiveConsoleSession();
  if (session != Platform::kNoSession) return session;
  logger.LogWarning(kNoConsoleSession);
  return std::nullopt;
}

Platform::SharedHandle UserTokenOf(std::uint32_t session, Platform::TokenType type,
                                   const Logging::TraceLogger& logger) {
  const Platform::Sessions& sessions = *Platform::CurrentMachine().sessions;
  const auto queried = sessions.QueryUserToken(session);
  if (!queried) {
    logger.LogWarning(kTokenQueryFailed);
    return nullptr;
  }
  auto copy = sessions.DuplicateUserToken(queried->get(), type);
  if (!copy) {
    logger.LogWarning(kTokenCopyFailed);
    return nullptr;
  }
  return Platform::Share(*std::move(copy));
}

void LogFailedRevert() {
  Logging::LogManager::SetProvider(Logging::kComponentProvider)->LogError(kRevertFailed);
}

std::optional<std::wstring> ExpandActing(Platform::RawHandle token, const std::wstring& path,
                                         const Logging::TraceLogger& logger) {
  auto expanded =
      Platform::CurrentMachine().environment->ExpandForUser(token, path, kExpandedPathChars);
  if (expanded) return *std::move(expanded);
  logger.LogWarning(kExpansionFailed);
  return std::nullopt;
}

}  // namespace Vx::Tessel::Server::Services::Orvane
