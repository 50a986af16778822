#include "storage/request_list.h"

#include "json/json_object.h"

namespace Vx::Tessel::Server::Storage {

namespace {

constexpr wchar_t kCommandParams[] = L"commandParams";
constexpr wchar_t kDelay[] = L"delayDeliverySec";

std::wstring Normalised(const Json::JsonObject& request) {
  return request.StringifyWithout(kCommandParams, kDelay);
}

std::wstring WithAppended(std::wstring list, std::wstring_view element) {
  list.pop_back();
  if (list.size() > 1) list.push_back(L',');
  list.append(element);
  list.push_back(L']');
  return list;
}

std::optional<std::wstring> WithoutFirst(std::wstring_view list, std::wstring_view text) {
  if (list.empty()) return std::nullopt;
  const Json::JsonArray array = Json::JsonArray::Parse(list);
  std::wstring rest = L"[]";
  rest.reserve(list.size());
  bool found = false;
  for (const Json::JsonValue& element : array) {
    if (!found && element.Kind() == Json::JsonKind::Object && element.Text() == text) {
      found = true;
    } else {
      rest = WithAppended(std::move(rest), element.Text());
    }
  }
  if (!found) return std::nullopt;
  return rest;
}

}  // namespace

std::optional<std::wstring> ListWith(std::wstring_view list, std::wstring_view request) {
  const Json::JsonObject added = Json::JsonObject::Parse(request);
  if (list.empty()) {
    std::wstring first = L"[";
    first.append(request);
    first.push_back(L']');
    return first;
  }
  const std::wstring form = Normalised(added);
  const Json::JsonArray array = Json::JsonArray::Parse(list);
  for (const Json::JsonValue& element : array) {
    if (element.Kind() == Json::JsonKind::Object && Normalised(element.AsObject()) == form) {
      return std::nullopt;
    }
  }
  return WithAppended(array.Stringify(), added.Stringify());
}

std::optional<std::wstring> ListWithout(std::wstring_view list, std::wstring_view request) {
  return WithoutFirst(list, request);
}

std::optional<std::wstring> ListWithoutCompleted(std::wstring_view list,
                                                 std::wstring_view request) {
  return WithoutFirst(list, Json::JsonObject::Parse(request).Stringify());
}

std::vector<std::optional<std::wstring>> RequestsOf(std::wstring_view list) {
  std::vector<std::optional<std::wstring>> requests;
  if (list.empty()) return requests;
  const Json::JsonArray array = Json::JsonArray::Parse(list);
  for (const Json::JsonValue& element : array) {
    if (element.Kind() == Json::JsonKind::Object) {
      requests.emplace_back(element.Text());
    } else {
      requests.emplace_back();
    }
  }
  return requests;
}

}  // namespace Vx::Tessel::Server::Storage
