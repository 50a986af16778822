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
  const bool copied = CopyRegistrationData(call.caller.clientId, *Logging::LogManager::GetLogger());
  Decide(call, copied, Records::Decision::Done, Records::Decision::Failed);
  AddAnswer(call, L"copied", copied);
  return kSuccess;
}

std::uint32_t LaunchAfterResume(const Call& call) {
  const auto reason = Qubo::QuboFacade().LaunchUwpWhenComingBackFromSleepIfNeeded();
  // If there was no reason to start the app, nothing was changed.
  if (reason != Qubo::QuboStartingPoint::None) call.record.outcome = {Records::Decision::Done};
  AddAnswer(call, L"startingPoint", static_cast<unsigned>(reason));
  return kSuccess;
}

std::uint32_t LaunchCompanionApp(const Call& call) {
  const Qubo::QuboFacade facade;
  facade.RegisterApp();
  const bool launched = facade.LaunchUwpForOobe();
  Decide(call, launched, Records::Decision::Ran, Records::Decision::NotStarted);
  AddAnswer(call, L"launched", launched);
  return kSuccess;
}

std::uint32_t LaunchWithParameter(const Call& call) {
  const std::wstring parameter = LaunchQuboWithParameterRequest(&call.request, call.caller);
  if (call.caller.problem->key != nullptr) {
    Log(call.caller).LogError(kParameterUnreadable, kNoParameter);
    return kFailed;
  }
  const Qubo::QuboFacade facade;
  facade.RegisterApp();
  const bool launched = facade.LaunchUwpWithParameter(parameter);
  Decide(call, launched, Records::Decision::Ran, Records::Decision::NotStarted);
  AddAnswer(call, L"launched", launched);
  return kSuccess;
}

}  // namespace Vx::Tessel::Server::Services::Orvane
