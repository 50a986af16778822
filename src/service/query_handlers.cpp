#include "service/query_handlers.h"

#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "launch/launcher.h"
#include "launch/lockdown_mode.h"
#include "launch/qubo_data_access.h"
#include "launch/qubo_facade.h"
#include "launch/registration_helper.h"
#include "launch/windows_mode_check_behavior.h"
#include "platform/console_user.h"
#include "service/consent_store.h"
#include "service/handler_support.h"
#include "service/result_codes.h"
#include "service/s_mode.h"
#include "storage/cap_data_store.h"
#include "storage/request_manager.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kStateIs[] = L"RegistrationState code to be returned is %d";
constexpr wchar_t kRevertFailed[] = L"Failed to RevertToSelf";
constexpr char kListsTooLong[] = "the stored requests do not fit into a response";
constexpr char kListBroken[] = "the stored list is not a JSON array";
constexpr wchar_t kSubscriptionsDone[] = L"GetSubscriptions executed";
constexpr wchar_t kSleepStateDone[] = L"GetSleepState executed";
constexpr wchar_t kVersionIs[] = L"Version number is %s";
constexpr wchar_t kVersionDone[] = L"GetVersion executed";

// Characters of a stored list beyond which it cannot fit, whatever its spelling: an escape of six
// characters stands for one. Keeps the parse of a list that grew too long cheap.
constexpr std::size_t kMaxStoredLength = 8 * kMaxResponseLength;

constexpr char kSleepState[] = "sleep_state";
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

// Reads the stored requests under `key` into an array. What another writer put into the list and is
// no object is left out, as it is at replay.
Json::WideValue StoredRequests(const char* key, Json::WidePool& pool) {
  Json::WideValue requests(rapidjson::kArrayType);
  const std::wstring text = RequestManager(kServiceDocument, key).StoredRequests();
  if (text.empty()) return requests;
  if (text.size() > kMaxStoredLength) throw std::length_error(kListsTooLong);
  Json::WideDocument stored(&pool);
  if (!Json::ParseJson(stored, text, Json::kMaxListNesting) || !stored.IsArray()) {
    throw std::runtime_error(kListBroken);
  }
  for (auto& request : stored.GetArray()) {
    if (request.IsObject()) requests.PushBack(request, pool);
  }
  return requests;
}

// An output stream that only counts.
struct LengthStream {
  using Ch = wchar_t;
  std::size_t length = 0;
  void Put(wchar_t) { ++length; }
  void Flush() {}
};

std::size_t TextLength(const Json::WideValue& value) {
  LengthStream stream;
  rapidjson::Writer<LengthStream, Json::WideEncoding, Json::WideEncoding> writer(stream);
  value.Accept(writer);
  return stream.length;
}

}  // namespace

std::uint32_t GetLockdownMode(Json::WideDocument* response, const RequestCaller& caller) {
  return Answer("QueryLockoutMode", caller, [&] {
    if (NullChecker({{response, "response"}}, caller)) return kFailed;
    AddAnswer(*response, L"sMode", Json::WideValue(QueryLockoutMode(caller.clientId)));
    return kSuccess;
  });
}

std::uint32_t GetRegistrationState(Json::WideDocument* response, const RequestCaller& caller) {
  return Answer("GetRegistrationState", caller, [&] {
    if (NullChecker({{response, "response"}}, caller)) return kFailed;
    const auto state = RegistrationHelper().GetRegistrationState();
    const int told = ConsentStore::Apply(static_cast<int>(state));
    AddAnswer(*response, L"registrationState", Json::WideValue(told));
    Log(caller).LogInfo(kStateIs, told);
    return kSuccess;
  });
}

std::uint32_t SkipAutoLaunchCriteria(const Json::WideDocument* request,
                                     Json::WideDocument* response, const RequestCaller& caller) {
  return Answer("SkipAutoLaunchCriteria", caller, [&] {
    if (NullChecker({{request, "request"}, {response, "response"}}, caller)) return kFailed;
    const std::string keyName = SkipAutoLaunchCriteriaRequest(request, caller);
    const bool marked = Qubo::QuboFacade().SkipAutoLaunchCriteria(keyName);
    AddAnswer(*response, L"setOperationOkay", Json::WideValue(marked));
    return kSuccess;
  });
}

std::uint32_t HasBeenInSMode(Json::WideDocument* response, const RequestCaller& caller) {
  return Answer("HasBeenInSMode", caller, [&] {
    if (NullChecker({{response, "response"}}, caller)) return kFailed;
    const bool left = Qubo::WindowsModeCheckBehavior().HasBeenInSMode();
    AddAnswer(*response, L"hasBeenInSMode", Json::WideValue(left));
    return kSuccess;
  });
}

std::uint32_t ShouldAutoLaunchBeSkipped(const Json::WideDocument* request,
                                        Json::WideDocument* response, const RequestCaller& caller) {
  return Answer("ShouldAutoLaunchBeSkipped", caller, [&] {
    if (NullChecker({{request, "request"}, {response, "response"}}, caller)) return kFailed;
    const std::string keyName = SkipAutoLaunchCriteriaRequest(request, caller);
    const auto criteria =
        Qubo::QuboDataAccessFactory().CreateApplicationLaunchCriteriaDataAccess(keyName);
    AddAnswer(*response, L"skip", Json::WideValue(criteria->ShouldBeSkipped()));
    return kSuccess;
  });
}

std::uint32_t IsUwpInstalled(const Json::WideDocument* request, Json::WideDocument* response,
                             const RequestCaller& caller) {
  return Answer("IsUwpInstalled", caller, [&] {
    if (NullChecker({{request, "request"}, {response, "response"}}, caller)) return kFailed;
    const std::wstring packageFamilyName = IsUwpInstalledRequest(request, caller);
    AddAnswer(*response, L"installed",
              Json::WideValue(IsInstalledForConsoleUser(packageFamilyName, caller)));
    return kSuccess;
  });
}

std::uint32_t GetExecutedMcAfeeStub(Json::WideDocument* response, const RequestCaller& caller) {
  return Answer("GetExecutedMcAfeeStub", caller, [&] {
    if (NullChecker({{response, "response"}}, caller)) return kFailed;
    Storage::CapDataStore store;
    const Storage::BsonDocument document = store.readDocument(kServiceDocument);
    const auto flag = document.Find(kExecutedStub);
    const bool launched = flag && flag->AsBoolean().value_or(false);
    AddAnswer(*response, L"launched", Json::WideValue(launched));
    return kSuccess;
  });
}

std::uint32_t SetExecutedMcAfeeStub(const Json::WideDocument* request,
                                    const RequestCaller& caller) {
  return Answer("SetExecutedMcAfeeStub", caller, [&] {
    bool launched = false;
    if (!ParseJsonValue(request, &launched, caller)) return kFailed;
    Storage::CapDataStore store;
    const auto flag = Storage::BsonElement::Boolean(launched);
    return store.mergeMember(kServiceDocument, kExecutedStub, flag) ? kSuccess : kFailed;
  });
}

std::uint32_t GetSubscriptions(Json::WideDocument* response, const RequestCaller& caller) {
  return Answer("GetSubscriptions", caller, [&] {
    if (NullChecker({{response, "response"}}, caller)) return kFailed;
    auto& pool = response->GetAllocator();
    Json::WideValue answer(rapidjson::kObjectType);
    AddMember(answer, L"power_events", StoredRequests(kPowerSubscriptions, pool), pool);
    AddMember(answer, L"zephra_events", StoredRequests(kZephraSubscriptions, pool), pool);
    AddResult(*response, std::move(answer));
    if (TextLength(*response) > kMaxResponseLength) {
      response->SetObject();
      throw std::length_error(kListsTooLong);
    }
    Log(caller).LogInfo(kSubscriptionsDone);
    return kSuccess;
  });
}

std::uint32_t GetSleepState(Json::WideDocument* response, const RequestCaller& caller) {
  return Answer("GetSleepState", caller, [&] {
    if (NullChecker({{response, "response"}}, caller)) return kFailed;
    const std::int32_t state = Storage::CapDataStore().requireInt32(kSleepState);
    AddAnswer(*response, L"sleepState", Json::WideValue(state));
    Log(caller).LogInfo(kSleepStateDone);
    return kSuccess;
  });
}

std::uint32_t GetVersion(Json::WideDocument* response, const RequestCaller& caller) {
  return Answer("GetVersion", caller, [&] {
    if (NullChecker({{response, "response"}}, caller)) return kFailed;
    AddAnswer(*response, L"getVersion", Json::WideValue(rapidjson::StringRef(kVersion)));
    Log(caller).LogInfo(kVersionIs, kVersion);
    Log(caller).LogInfo(kVersionDone);
    return kSuccess;
  });
}

}  // namespace Vx::Tessel::Server::Services::Orvane
