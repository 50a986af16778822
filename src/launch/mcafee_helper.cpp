#include "launch/mcafee_helper.h"

#include <utility>

#include "launch/launcher.h"
#include "platform/console_user.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kNoSessionApi[] =
    L"Problem in McAfeeHelper::expand_path_impersonated_as_loggedin_user(): WTSQueryUserToken is "
    L"not available on this platform";

Platform::ActingReport ReportTo(const Logging::TraceLogger& logger) {
  return [&logger](Platform::ActingStep step, Platform::ErrorCode) {
    if (step == Platform::ActingStep::SessionApi) {
      logger.LogError(kNoSessionApi);
    } else {
      LogRefusedStep(logger, step);
    }
  };
}

}  // namespace

McAfeeHelper::McAfeeHelper()
    : logger(Logging::LogManager::SetProvider(Logging::kComponentProvider)) {}

bool McAfeeHelper::expand_path_impersonated_as_loggedin_user(const std::wstring& path,
                                                             std::wstring& expanded) const {
  logger->LogInfo(kActingAsUser);
  const auto token =
      Platform::ConsoleUserToken(Platform::TokenType::Impersonation, ReportTo(*logger));
  auto answer = ExpandAsUser(token.get(), path, *logger);
  if (!answer) return false;
  expanded = *std::move(answer);
  return true;
}

bool McAfeeHelper::RunAsLoggedInUser(const std::function<bool()>& work) const {
  const auto report = ReportTo(*logger);
  const auto token = Platform::ConsoleUserToken(Platform::TokenType::Impersonation, report);
  return Platform::AsUser(token.get(), report, work);
}

}  // namespace Vx::Tessel::Server::Services::Orvane
