#include "service/launch_handlers.h"

#include <string>

#include "host/logging.h"
#include "launch/qubo_facade.h"
#include "launch/registration_data.h"
#include "service/handler_support.h"
#include "service/result_codes.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kParameterUnreadable[] =
    L"Problem while parsing the parameter property of JSON's request. %S";
constexpr char kNoParameter[] = "parameter is missing or is not a string";

}  // namespace

std::uint32_t CopyRegistration(Json::WideDocument* response, const RequestCaller& caller) {
  return Answer("CopyRegistration", caller, [&] {
    if (NullChecker({{response, "response"}}, caller)) return kFailed;
    const bool copied = CopyRegistrationData(caller.clientId, *Logging::LogManager::GetLogger());
    AddAnswer(*response, L"copied", Json::WideValue(copied));
    return kSuccess;
  });
}

std::uint32_t LaunchAfterResume(Json::WideDocument* response, const RequestCaller& caller) {
  return Answer("LaunchUwpWhenComingBackFromSleepIfNeeded", caller, [&] {
    if (NullChecker({{response, "response"}}, caller)) return kFailed;
    const auto reason = Qubo::QuboFacade().LaunchUwpWhenComingBackFromSleepIfNeeded();
    AddAnswer(*response, L"startingPoint", Json::WideValue(static_cast<unsigned>(reason)));
    return kSuccess;
  });
}

std::uint32_t LaunchCompanionApp(Json::WideDocument* response, const RequestCaller& caller) {
  return Answer("RegisterApp", caller, [&] {
    if (NullChecker({{response, "response"}}, caller)) return kFailed;
    const Qubo::QuboFacade facade;
    facade.RegisterApp();
    AddAnswer(*response, L"launched", Json::WideValue(facade.LaunchUwpForOobe()));
    return kSuccess;
  });
}

std::uint32_t LaunchWithParameter(const Json::WideDocument* request, Json::WideDocument* response,
                                  const RequestCaller& caller) {
  return Answer("LaunchUwpWithParameter", caller, [&] {
    if (NullChecker({{request, "request"}, {response, "response"}}, caller)) return kFailed;
    RequestProblem problem;
    const RequestCaller reader{caller.clientId, &problem, caller.className};
    const std::wstring parameter = LaunchQuboWithParameterRequest(request, reader);
    if (problem.key != nullptr) {
      Log(caller).LogError(kParameterUnreadable, kNoParameter);
      if (caller.problem != nullptr) *caller.problem = problem;
      return kFailed;
    }
    const Qubo::QuboFacade facade;
    facade.RegisterApp();
    AddAnswer(*response, L"launched", Json::WideValue(facade.LaunchUwpWithParameter(parameter)));
    return kSuccess;
  });
}

}  // namespace Vx::Tessel::Server::Services::Orvane
