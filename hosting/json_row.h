#pragma once

#include <initializer_list>
#include <string>
#include <type_traits>
#include <vector>

#include "json/json_text.h"
#include "json/utf8.h"

namespace Vx::Hosting {

// Returns `text` as a JSON string.
inline std::wstring Quoted(const std::wstring& text) {
  const auto size = static_cast<rapidjson::SizeType>(text.size());
  return Json::JsonText(Json::WideValue(text.c_str(), size));
}

// Builds the text of a JSON object. Keeps its members in the order in which they are added.
class JsonRow {
 public:
  // A name, which must not need escaping, and its value.
  struct Member {
    template <typename Value>
    Member(const wchar_t* name, const Value& value)
        : text(L'"' + std::wstring(name) + L"\":" + TextOf(value)) {}
    std::wstring text;
  };

  JsonRow(std::initializer_list<Member> first) {
    for (const Member& member : first) Add(member);
  }

  void Add(const Member& member) { (members += members.empty() ? L"" : L",") += member.text; }
  // Adds a member whose value is already JSON.
  void AddJson(const std::wstring& name, const std::wstring& json) {
    (members += members.empty() ? L"\"" : L",\"") += name + L"\":" + json;
  }

  std::wstring Text() const { return L'{' + members + L'}'; }

  // Return a value as JSON.
  static std::wstring TextOf(const JsonRow& row) { return row.Text(); }
  static std::wstring TextOf(const Json::WideValue& value) { return Json::JsonText(value); }
  static std::wstring TextOf(const std::wstring& text) { return Quoted(text); }
  static std::wstring TextOf(const std::string& utf8) { return Quoted(Json::ToWide(utf8)); }
  template <typename Value>
  requires std::is_arithmetic_v<Value>
  static std::wstring TextOf(Value number) { return Json::JsonText(Json::WideValue(number)); }
  template <typename Element>
  static std::wstring TextOf(const std::vector<Element>& list) {
    std::wstring text;
    for (const Element& element : list) (text += text.empty() ? L"" : L",") += TextOf(element);
    return L'[' + text + L']';
  }

 private:
  std::wstring members;
};

}  // namespace Vx::Hosting
