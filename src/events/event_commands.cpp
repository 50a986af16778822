#include "events/event_commands.h"

#include <chrono>
#include <cstdint>
#include <utility>

#include "host/logging.h"
#include "launch/launcher.h"
#include "platform/clock.h"
#include "platform/machine.h"
#include "platform/sessions.h"
#include "platform/system_services.h"
#include "platform/windows_runtime_error.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kNotTrusted[] = L"LaunchCommand::Execute - %s not trusted to launch as system";
constexpr wchar_t kLaunching[] =
    L"LaunchedCommand::Execute attempting to launch \"%s\" with args \"%s\"";
constexpr wchar_t kLaunched[] = L"LaunchCommand::Execute returned with result %i and PID %u";

constexpr wchar_t kNoSuchAction[] =
    L"the action is neither 1 (start a program) nor 2 (send a message)";

constexpr std::int32_t kInvalidArgument = static_cast<std::int32_t>(0x80070057);
constexpr wchar_t kNullInArguments[] = L"the arguments hold a null character";

constexpr wchar_t kDelayKey[] = L"delayDeliverySec";
constexpr wchar_t kNoDelay[] = L"0";

}  // namespace

LaunchCommand::LaunchCommand(const Json::JsonObject& parameters)
    : path(parameters.GetNamedString(L"path")),
      arguments(parameters.FindString(L"arguments").value_or(L"")) {
  delayDeliverySec = parameters.GetNamedString(kDelayKey, kNoDelay);
  target = path;
  // A command line ends at a null character, so the program would lose some of its arguments.
  if (arguments.find(L'\0') != std::wstring::npos) {
    throw Platform::WindowsRuntimeError(kInvalidArgument, kNullInArguments);
  }
}

std::unique_lock<std::mutex> LaunchCommand::TakeTurn(std::mutex& turn) {
  constexpr std::chrono::milliseconds kPause{10};
  constexpr std::uint64_t kPatience = 1000;  // milliseconds; a sleep may take longer than requested
  constexpr int kMostChecks = 3;
  Platform::Clock& clock = *Platform::CurrentMachine().clock;
  for (int checks = 1;; ++checks) {
    const auto& program = checked.emplace(Security::TrustedProgram::Check(path)).program;
    // An untrusted program is not locked, so the wait may be unlimited.
    if (program == nullptr || checks == kMostChecks) return std::unique_lock(turn);
    const std::uint64_t begin = clock.TickCount();
    std::unique_lock taken(turn, std::try_to_lock);
    while (!taken && clock.TickCount() - begin < kPatience) {
      clock.Sleep(kPause);
      static_cast<void>(taken.try_lock());
    }
    if (taken) return taken;
    const auto identity = program->Identity();
    checked.reset();
    taken.lock();
    if (identity) checked = Security::TrustedProgram::CheckUnchanged(path, *identity);
    if (checked) return taken;
  }
}

Records::Outcome LaunchCommand::Execute() {
  const Logging::TraceLogger& log = *Logging::LogManager::SetProvider(Logging::kComponentProvider);
  const std::uint32_t session = Platform::CurrentMachine().sessions->ActiveConsoleSession();

  const auto check =
      checked ? *std::exchange(checked, std::nullopt) : Security::TrustedProgram::Check(path);
  if (check.program == nullptr) {
    log.LogWarning(kNotTrusted, path.c_str());
    return {Records::Decision::Refused, check.reason};
  }
  log.LogInfo(kLaunching, path.c_str(), arguments.c_str());
  const Records::Outcome outcome = LaunchProcessInSession(*check.program, arguments, {}, session);
  const bool ran = outcome.decision == Records::Decision::Ran;
  log.LogInfo(kLaunched, ran ? 1 : 0, ran ? outcome.number : 0U);
  return outcome;
}

AppServiceNotificationCommand::AppServiceNotificationCommand(const Json::JsonObject& parameters)
    : packageFamilyName(parameters.GetNamedString(L"packageFamilyName")),
      appServiceName(parameters.GetNamedString(L"appServiceName")),
      payload(parameters.GetNamedObject(L"payload")) {
  delayDeliverySec = parameters.GetNamedString(kDelayKey, kNoDelay);
  customTriggerGuid = payload.FindString(L"customTriggerGUID").value_or(L"");
  target = packageFamilyName + L"/" + appServiceName;
}

Records::Outcome AppServiceNotificationCommand::Execute() {
  const auto service =
      Platform::CurrentMachine().appServices->Open(packageFamilyName, appServiceName);
  const int status = service->Send(payload.Stringify()).first;
  if (status == 0) return {Records::Decision::Sent};
  return {Records::Decision::NotSent, Records::Reason::NotTaken,
          static_cast<std::uint32_t>(status)};
}

EventCommandPtr CreateEventCommand(EventAction action, const Json::JsonObject& parameters) {
  switch (action) {
    case EventAction::Launch:
      return std::make_shared<LaunchCommand>(parameters);
    case EventAction::AppServiceNotification:
      return std::make_shared<AppServiceNotificationCommand>(parameters);
  }
  throw Platform::WindowsRuntimeError(kUnknownAction, kNoSuchAction);
}

std::unique_lock<std::mutex> TakeTurn(EventCommand& command, std::mutex& turn) {
  auto* const launch = dynamic_cast<LaunchCommand*>(&command);
  return launch != nullptr ? launch->TakeTurn(turn) : std::unique_lock(turn);
}

}  // namespace Vx::Tessel::Server::Services::Orvane
