#include "launch/mcafee_helper.h"

#include <utility>

#include "launch/acting_as_user.h"
#include "platform/machine.h"
#include "platform/system_services.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kNoSessionApi[] =
    L"Problem in McAfeeHelper::expand_path_impersonated_as_loggedin_user(): WTSQueryUserToken is "
    L"not available on this platform";

}  // namespace

McAfeeHelper::McAfeeHelper()
    : logger(Logging::LogManager::SetProvider(Logging::kComponentProvider)) {}

bool McAfeeHelper::expand_path_impersonated_as_loggedin_user(const std::wstring& path,
                                                             std::wstring& expanded) const {
  logger->LogInfo(kActingAsUser);
  return RunAsLoggedInUser([&](Platform::RawHandle token) {
    auto answer = ExpandActing(token, path, *logger);
    if (!answer) return false;
    expanded = *std::move(answer);
    return true;
  });
}

bool McAfeeHelper::RunAsLoggedInUser(
    const std::function<bool(Platform::RawHandle token)>& work) const {
  const auto session = ConsoleSession(*logger);
  if (!session) return false;
  if (!Platform::CurrentMachine().apiSets->IsPresent(Platform::kSessionApiSet)) {
    logger->LogError(kNoSessionApi);
    return false;
  }
  const auto token = UserTokenOf(*session, Platform::TokenType::Impersonation, *logger);
  return AskAsUser(token.get(), *logger, [&] { return work(token.get()); });
}

}  // namespace Vx::Tessel::Server::Services::Orvane
