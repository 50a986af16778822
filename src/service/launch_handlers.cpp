#include "service/launch_handlers.h"

#include <string>

#include "companion/qubo_facade.h"
#include "companion/registration.h"
#include "host/logging.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kParameterUnreadable[] =
    L"Problem while parsing the parameter property of JSON's request. %S";
constexpr char kNoParameter[] = "parameter is missing or is not a string";

}  // namespace

std::uint32_t CopyRegistration(const Call& call) {
  return ResultFromException("CopyRegistration", call, [&] {
    if (LacksResponse(call)) return kFailed;
    const bool copied =
        CopyRegistrationData(call.caller.clientId, *Logging::LogManager::GetLogger());
    Decide(call, copied, Records::Decision::Done, Records::Decision::Failed);
    AddAnswer(*call.response, L"copied", Json::WideValue(copied));
    return kSuccess;
  });
}

std::uint32_t LaunchAfterResume(const Call& call) {
  return ResultFromException("LaunchUwpWhenComingBackFromSleepIfNeeded", call, [&] {
    if (LacksResponse(call)) return kFailed;
    const auto reason = Qubo::QuboFacade().LaunchUwpWhenComingBackFromSleepIfNeeded();
    // No reason, no change.
    if (reason != Qubo::QuboStartingPoint::None) call.record.outcome = {Records::Decision::Done};
    AddAnswer(*call.response, L"startingPoint", Json::WideValue(static_cast<unsigned>(reason)));
    return kSuccess;
  });
}

std::uint32_t LaunchCompanionApp(const Call& call) {
  return ResultFromException("RegisterApp", call, [&] {
    if (LacksResponse(call)) return kFailed;
    const Qubo::QuboFacade facade;
    facade.RegisterApp();
    const bool launched = facade.LaunchUwpForOobe();
    Decide(call, launched, Records::Decision::Ran, Records::Decision::NotStarted);
    AddAnswer(*call.response, L"launched", Json::WideValue(launched));
    return kSuccess;
  });
}

std::uint32_t LaunchWithParameter(const Call& call) {
  return ResultFromException("LaunchUwpWithParameter", call, [&] {
    if (LacksDocuments(call)) return kFailed;
    const std::wstring parameter = LaunchQuboWithParameterRequest(call.request, call.caller);
    if (call.caller.problem->key != nullptr) {
      Log(call.caller).LogError(kParameterUnreadable, kNoParameter);
      return kFailed;
    }
    const Qubo::QuboFacade facade;
    facade.RegisterApp();
    const bool launched = facade.LaunchUwpWithParameter(parameter);
    Decide(call, launched, Records::Decision::Ran, Records::Decision::NotStarted);
    AddAnswer(*call.response, L"launched", Json::WideValue(launched));
    return kSuccess;
  });
}

}  // namespace Vx::Tessel::Server::Services::Orvane
