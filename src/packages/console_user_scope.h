#pragma once

#include <utility>

#include "host/logging.h"
#include "packages/package_error.h"
#include "platform/console_user.h"
#include "platform/impersonation.h"

namespace Vx::Tessel::Server::Services::Orvane {

// Answers `action()`, run as the user at the console. Afterwards the thread acts as the service,
// also where it acted as somebody else before. Throws PackageError when there is no such user or
// the thread may not act as them.
template <typename Action>
auto AsConsoleUser(Action&& action) {
  static constexpr wchar_t kRevertFailed[] =
      L"Problem while reverting the impersonation of a package operation.";
  const auto reportFailedRevert = [] {
    Logging::LogManager::SetProvider(Logging::kComponentProvider)->LogWarning(kRevertFailed);
  };
  const auto token = Platform::ConsoleUserToken();
  if (!token) throw PackageError(L"WTSQueryUserToken", token.Error());
  Platform::Impersonation acting(token->get(), reportFailedRevert);
  if (!acting) throw PackageError(L"ImpersonateLoggedOnUser", acting.Error());
  auto answer = std::forward<Action>(action)();
  if (acting.Revert() != 0) reportFailedRevert();
  return answer;
}

}  // namespace Vx::Tessel::Server::Services::Orvane
