#include "service/json_request.h"

#include <utility>

#include "json/utf8.h"
#include "service/boundary.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kNullPointer[] = L"%S.%S - %S cannot be null";
constexpr wchar_t kMissingKey[] = L"%S.%S - %S missing key %s";
constexpr wchar_t kNullValue[] = L"%S.%S - %s cannot be null";
constexpr wchar_t kWrongType[] = L"%S.%S - %s is invalid type expected %d result %d";

constexpr wchar_t kIsMissing[] = L"is missing";
constexpr wchar_t kIsNull[] = L"is null";
constexpr wchar_t kIsNoText[] = L"is not a string";
constexpr wchar_t kIsNoBool[] = L"is not a boolean";

constexpr wchar_t kLaunched[] = L"launched";

void Note(const RequestCaller& caller, const wchar_t* key, const wchar_t* what) {
  if (caller.problem != nullptr) *caller.problem = {key, what};
}

const Json::WideValue* FindMember(const Json::WideDocument& document, const wchar_t* name) {
  if (!document.IsObject()) return nullptr;
  const auto member = document.FindMember(name);
  return member == document.MemberEnd() ? nullptr : &member->value;
}

// Returns the string member `name` or, if `expected` is kTrueType, the boolean one. Returns null if
// there is none or if `result`, where the caller will store the value, is null.
const Json::WideValue* TypedMember(const Json::WideDocument* document, const wchar_t* name,
                                   rapidjson::Type expected, const void* result,
                                   const RequestCaller& caller) {
  if (NullChecker({{caller.clientId, "clientId"},
                   {document, "document"},
                   {caller.className, "className"},
                   {name, "jsonName"},
                   {result, "resultValue"}},
                  caller)) {
    return nullptr;
  }
  const Json::WideValue* value = nullptr;
  if (!GetJsonValue(document, name, &value, caller)) return nullptr;
  const bool wantsText = expected == rapidjson::kStringType;
  if (wantsText ? value->IsString() : value->IsBool()) return value;
  Log(caller).LogWarning(kWrongType, caller.className, "ParseJsonValue", name,
                         static_cast<int>(expected), static_cast<int>(value->GetType()));
  Note(caller, name, wantsText ? kIsNoText : kIsNoBool);
  return nullptr;
}

// Reads the string under `key` in a request. Returns an empty one if it cannot be read.
std::wstring_view ReadText(const Json::WideDocument* document, const wchar_t* key,
                           const char* reader, const char* resultName,
                           const RequestCaller& caller) {
  if (NullChecker({{document, "document"}, {caller.className, "className"}}, caller)) return {};
  const wchar_t* text = nullptr;
  if (ParseJsonValue(document, key, &text, caller)) return text;
  Log(caller).LogWarning(kNullPointer, caller.className, reader, resultName);
  return {};
}

}  // namespace

bool NullChecker(std::initializer_list<NullCheck> checks, const RequestCaller& caller) {
  bool anyNull = false;
  for (const NullCheck& check : checks) {
    if (check.pointer != nullptr) continue;
    anyNull = true;
    Log(caller).LogWarning(kNullPointer, caller.className, "NullChecker", check.name);
  }
  return anyNull;
}

bool GetJsonValue(const Json::WideDocument* document, const wchar_t* jsonName,
                  const Json::WideValue** outJsonValue, const RequestCaller& caller) {
  ClientIdLength(caller.clientId);  // terminates the process if it is too long
  if (NullChecker({{document, "document"},
                   {caller.className, "className"},
                   {jsonName, "jsonName"},
                   {outJsonValue, "outJsonValue"}},
                  caller)) {
    return false;
  }
  const Json::WideValue* value = FindMember(*document, jsonName);
  if (value == nullptr) {
    Log(caller).LogWarning(kMissingKey, caller.className, "GetJsonValue", "document", jsonName);
    Note(caller, jsonName, kIsMissing);
    return false;
  }
  if (value->IsNull()) {
    Log(caller).LogWarning(kNullValue, caller.className, "GetJsonValue", jsonName);
    Note(caller, jsonName, kIsNull);
    return false;
  }
  *outJsonValue = value;
  return true;
}

bool ParseJsonValue(const Json::WideDocument* document, const wchar_t* jsonName,
                    const wchar_t** resultValue, const RequestCaller& caller) {
  const Json::WideValue* value =
      TypedMember(document, jsonName, rapidjson::kStringType, resultValue, caller);
  if (value == nullptr) return false;
  *resultValue = value->GetString();
  return true;
}

bool ParseJsonValue(const Json::WideDocument* document, bool* resultValue,
                    const RequestCaller& caller) {
  const Json::WideValue* value =
      TypedMember(document, kLaunched, rapidjson::kTrueType, resultValue, caller);
  if (value == nullptr) return false;
  *resultValue = value->IsTrue();
  return true;
}

std::string SkipAutoLaunchCriteriaRequest(const Json::WideDocument* document,
                                          const RequestCaller& caller) {
  return Json::ToUtf8(
      ReadText(document, L"keyName", "SkipAutoLaunchCriteriaRequest", "parsed_key_name", caller));
}

std::wstring LaunchQuboWithParameterRequest(const Json::WideDocument* document,
                                            const RequestCaller& caller) {
  return std::wstring(ReadText(document, L"parameter", "LaunchQuboWithParameterRequest",
                               "parsed_parameter", caller));
}

std::wstring IsUwpInstalledRequest(const Json::WideDocument* document,
                                   const RequestCaller& caller) {
  return std::wstring(ReadText(document, L"packageFamilyName", "IsUwpInstalledRequest",
                               "parsed_package_family_name", caller));
}

void AddMember(Json::WideValue& object, std::wstring_view key, Json::WideValue&& value,
               Json::WidePool& allocator) {
  Json::WideValue name(rapidjson::StringRef(key.data(), key.size()));
  object.AddMember(name, value, allocator);
}

void AddResult(Json::WideDocument& response, Json::WideValue&& result) {
  AddMember(response, L"result", std::move(result), response.GetAllocator());
}

}  // namespace Vx::Tessel::Server::Services::Orvane
