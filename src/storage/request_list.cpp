#include "storage/request_list.h"

#include <cstddef>
#include <stdexcept>

#include "json/json_object.h"

namespace Vx::Tessel::Server::Storage {

namespace {

constexpr wchar_t kCommandParams[] = L"commandParams";
constexpr wchar_t kDelay[] = L"delayDeliverySec";
constexpr std::wstring_view kDelayMember = L"\"delayDeliverySec\":";  // as compact JSON spells it

constexpr char kTooLong[] = "its stored form is longer than a request may be";

std::wstring Normalised(const Json::JsonObject& request) {
  return request.StringifyWithout(kCommandParams, kDelay);
}

// Returns whether the object with this compact text may have the normalized form `form`.
// Normalizing only removes members and adjacent commas, so this rules out nearly all others.
bool MayNormaliseTo(std::wstring_view text, std::wstring_view form) {
  if (text.size() <= form.size()) return text == form;
  const auto differs = std::mismatch(form.begin(), form.end(), text.begin()).first;
  const auto same = static_cast<std::size_t>(differs - form.begin());
  // The two differ at the comma before the first omitted member, or right after that comma.
  return text.substr(0, same + 1 + kDelayMember.size()).find(kDelayMember) !=
         std::wstring_view::npos;
}

// A client removes a stored request by sending its text, which may be longer than the text that the
// client first sent: 1e20 is written out in full.
void RequireRemovable(std::wstring_view text) {
  if (text.size() > kMaxStoredRequest) throw std::length_error(kTooLong);
}

// Appends an element to `open`, the text of an array without its closing bracket.
void AppendElement(std::wstring& open, std::wstring_view element) {
  if (open.size() > 1) open.push_back(L',');
  open.append(element);
}

}  // namespace

std::optional<std::wstring> ListWith(std::wstring_view list, std::wstring_view request) {
  const Json::JsonObject added = Json::JsonObject::Parse(request);
  const std::wstring text = added.Stringify();
  if (list.empty()) {
    RequireRemovable(text);
    return L"[" + std::wstring(request) + L"]";
  }
  const std::wstring form = Normalised(added);
  std::wstring longer = L"[";
  longer.reserve(list.size() + text.size() + 1);
  for (const Json::JsonValue& element : Json::JsonValue::ParseArray(list)) {
    const std::wstring stored = element.Text();
    if (element.Kind() == Json::JsonKind::Object && MayNormaliseTo(stored, form) &&
        Normalised(element.AsObject()) == form) {
      return std::nullopt;
    }
    AppendElement(longer, stored);
  }
  RequireRemovable(text);
  AppendElement(longer, text);
  longer.push_back(L']');
  return longer;
}

std::optional<std::wstring> ListWithout(std::wstring_view list, std::wstring_view request) {
  if (list.empty()) return std::nullopt;
  std::wstring rest = L"[";
  rest.reserve(list.size());
  bool found = false;
  for (const Json::JsonValue& element : Json::JsonValue::ParseArray(list)) {
    const std::wstring stored = element.Text();
    if (!found && element.Kind() == Json::JsonKind::Object && stored == request) {
      found = true;
    } else {
      AppendElement(rest, stored);
    }
  }
  if (!found) return std::nullopt;
  rest.push_back(L']');
  return rest;
}

std::optional<std::wstring> ListWithoutCompleted(std::wstring_view list,
                                                 std::wstring_view request) {
  return ListWithout(list, Json::JsonObject::Parse(request).Stringify());
}

std::vector<std::optional<std::wstring>> RequestsOf(std::wstring_view list) {
  std::vector<std::optional<std::wstring>> requests;
  if (list.empty()) return requests;
  for (const Json::JsonValue& element : Json::JsonValue::ParseArray(list)) {
    const bool isObject = element.Kind() == Json::JsonKind::Object;
    requests.push_back(isObject ? std::optional(element.Text()) : std::nullopt);
  }
  return requests;
}

}  // namespace Vx::Tessel::Server::Storage
