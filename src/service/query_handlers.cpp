#include "service/query_handlers.h"

#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "host/logging.h"
#include "launch/launcher.h"
#include "platform/impersonation.h"
#include "platform/type_name.h"
#include "service/result_codes.h"
#include "storage/cap_data_store.h"
#include "storage/request_manager.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kThrew[] = L"%S.%S threw exception %S";
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

constexpr char kStubFlag[] = "ExecutedMcAfeeStub";
constexpr char kSleepState[] = "sleep_state";
constexpr wchar_t kVersion[] = L"1.73.4044.0";

Logging::TraceLogger::ForCaller Log(const RequestCaller& caller) {
  return Logging::LogManager::GetLogger()->For(caller.clientId);
}

// The boundary of a handler.
template <typename Body>
std::uint32_t Answer(const char* operation, const RequestCaller& caller, Body&& body) {
  try {
    return std::forward<Body>(body)();
  } catch (const std::exception& error) {
    Log(caller).LogError(kThrew, caller.className, operation, error.what());
    return kFailed;
  }
}

// Puts an answer of one value into the response.
void AddAnswer(Json::WideDocument& response, std::wstring_view key, Json::WideValue&& value) {
  Json::WideValue answer(rapidjson::kObjectType);
  AddMember(answer, key, std::move(value), response.GetAllocator());
  AddResult(response, std::move(answer));
}

bool IsInstalledForConsoleUser(const std::wstring& packageFamilyName, const RequestCaller& caller) {
  const Launcher launcher;
  const auto token = launcher.GetUserTokenForCurrentUser(Platform::TokenType::Impersonation);
  Platform::Impersonation user(token.get());
  // Asked as the service's own user, the answer would be about somebody else's packages.
  if (!user) return false;
  const bool installed = !launcher.GetPackageFullNameByFamilyName(packageFamilyName).empty();
  if (user.Revert() != 0) Log(caller).LogWarning(kRevertFailed);
  return installed;
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
    const auto flag = document.Find(kStubFlag);
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
    return store.mergeMember(kServiceDocument, kStubFlag, flag) ? kSuccess : kFailed;
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
