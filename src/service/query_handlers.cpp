#include "service/query_handlers.h"

#include <string>

#include "companion/qubo_behaviors.h"
#include "companion/qubo_facade.h"
#include "companion/registration.h"
#include "companion/windows_mode.h"
#include "launch/launcher.h"
#include "platform/console_user.h"
#include "service/consent_store.h"
#include "service/orvane_service.h"
#include "storage/cap_data_store.h"
#include "storage/service_document.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kStateIs[] = L"RegistrationState code to be returned is %d";
constexpr wchar_t kRevertFailed[] = L"Failed to RevertToSelf";
constexpr wchar_t kVersionIs[] = L"Version number is %s";
constexpr wchar_t kVersionDone[] = L"GetVersion executed";

constexpr wchar_t kVersion[] = L"" VX_VERSION;

bool IsInstalledForConsoleUser(const std::wstring& packageFamilyName, const RequestCaller& caller) {
  const Launcher launcher;
  const auto token = launcher.GetUserTokenForCurrentUser(Platform::TokenType::Impersonation);
  const auto report = [&caller](Platform::ActingStep step, Platform::ErrorCode) {
    if (step == Platform::ActingStep::Revert) Log(caller).LogWarning(kRevertFailed);
  };
  return Platform::AsUser(token.get(), report, [&] {
    return !launcher.GetPackageFullNameByFamilyName(packageFamilyName).empty();
  });
}

}  // namespace

std::uint32_t GetLockdownMode(const Call& call) {
  AddAnswer(call, L"sMode", QueryLockoutMode(call.caller.clientId));
  return kSuccess;
}

std::uint32_t GetRegistrationState(const Call& call) {
  const auto state = RegistrationHelper().GetRegistrationState();
  const int told = ConsentStore::Apply(static_cast<int>(state));
  AddAnswer(call, L"registrationState", told);
  Log(call.caller).LogInfo(kStateIs, told);
  return kSuccess;
}

std::uint32_t SkipAutoLaunchCriteria(const Call& call) {
  const std::string keyName = SkipAutoLaunchCriteriaRequest(&call.request, call.caller);
  const bool marked = Qubo::QuboFacade().SkipAutoLaunchCriteria(keyName);
  Decide(call, marked, Records::Decision::Done, Records::Decision::Failed);
  AddAnswer(call, L"setOperationOkay", marked);
  return kSuccess;
}

std::uint32_t HasBeenInSMode(const Call& call) {
  AddAnswer(call, L"hasBeenInSMode", call.service.HasBeenInSMode());
  return kSuccess;
}

std::uint32_t ShouldAutoLaunchBeSkipped(const Call& call) {
  const std::string keyName = SkipAutoLaunchCriteriaRequest(&call.request, call.caller);
  const auto criteria =
      Qubo::QuboDataAccessFactory().CreateApplicationLaunchCriteriaDataAccess(keyName);
  AddAnswer(call, L"skip", criteria->ShouldBeSkipped());
  return kSuccess;
}

std::uint32_t IsUwpInstalled(const Call& call) {
  const std::wstring packageFamilyName = IsUwpInstalledRequest(&call.request, call.caller);
  AddAnswer(call, L"installed", IsInstalledForConsoleUser(packageFamilyName, call.caller));
  return kSuccess;
}

std::uint32_t GetExecutedMcAfeeStub(const Call& call) {
  Storage::CapDataStore store;
  const Storage::BsonDocument document = store.readDocument(kServiceDocument);
  const auto flag = document.Find(kExecutedStub);
  const bool launched = flag && flag->AsBoolean().value_or(false);
  AddAnswer(call, L"launched", launched);
  return kSuccess;
}

std::uint32_t SetExecutedMcAfeeStub(const Call& call) {
  bool launched = false;
  if (!ParseJsonValue(&call.request, &launched, call.caller)) return kFailed;
  Storage::CapDataStore store;
  const auto flag = Storage::BsonElement::Boolean(launched);
  if (store.mergeMember(kServiceDocument, kExecutedStub, flag)) return kSuccess;
  call.record.outcome = {Records::Decision::Refused, Records::Reason::StoreRefused};
  return kFailed;
}

std::uint32_t GetVersion(const Call& call) {
  AddAnswer(call, L"getVersion", rapidjson::StringRef(kVersion));
  Log(call.caller).LogInfo(kVersionIs, kVersion);
  Log(call.caller).LogInfo(kVersionDone);
  return kSuccess;
}

}  // namespace Vx::Tessel::Server::Services::Orvane
