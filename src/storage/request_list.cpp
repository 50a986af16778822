#include "storage/request_list.h"

#include <algorithm>
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

// Returns the element that was appended when the text was `before` characters long.
std::wstring_view LastElement(const std::wstring& open, std::size_t before) {
  return std::wstring_view(open).substr(before == 1 ? 1 : before + 1);
}

// Appends an element to `open`, the text of an array without its closing bracket.
void AppendElement(std::wstring& open, const Json::JsonValue& element) {
  if (open.size() > 1) open.push_back(L',');
  element.AppendTo(open);
}

std::optional<std::wstring> WithoutFirst(std::wstring_view list, std::wstring_view text) {
  if (list.empty()) return std::nullopt;
  const Json::JsonArray array = Json::JsonArray::Parse(list);
  std::wstring rest = L"[";
  rest.reserve(list.size());
  bool found = false;
  for (const Json::JsonValue& element : array) {
    const std::size_t before = rest.size();
    AppendElement(rest, element);
    if (found || element.Kind() != Json::JsonKind::Object || LastElement(rest, before) != text) {
      continue;
    }
    rest.resize(before);
    found = true;
  }
  if (!found) return std::nullopt;
  rest.push_back(L']');
  return rest;
}

}  // namespace

std::optional<std::wstring> ListWith(std::wstring_view list, std::wstring_view request) {
  const Json::JsonObject added = Json::JsonObject::Parse(request);
  const std::wstring text = added.Stringify();
  if (list.empty()) {
    RequireRemovable(text);
    std::wstring first = L"[";
    first.append(request);
    first.push_back(L']');
    return first;
  }
  const std::wstring form = Normalised(added);
  const Json::JsonArray array = Json::JsonArray::Parse(list);
  std::wstring longer = L"[";
  longer.reserve(list.size() + text.size() + 1);
  for (const Json::JsonValue& element : array) {
    const std::size_t before = longer.size();
    AppendElement(longer, element);
    if (element.Kind() == Json::JsonKind::Object &&
        MayNormaliseTo(LastElement(longer, before), form) &&
        Normalised(element.AsObject()) == form) {
      return std::nullopt;
    }
  }
  RequireRemovable(text);
  if (longer.size() > 1) longer.push_back(L',');
  longer.append(text).push_back(L']');
  return longer;
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
