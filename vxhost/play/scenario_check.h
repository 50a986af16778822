#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>

#include "hosting/text.h"
#include "json/json_text.h"
#include "vxhost/common/module_options.h"

namespace Vx::Hosting::Tool {

// The form of a part's value.
struct PartForm {
  const char* wanted = "";  // for error messages
  bool (Json::WideValue::*isOfType)() const = nullptr;
  bool (*fits)(const Json::WideValue& value) = nullptr;

  bool Accepts(const Json::WideValue& value) const {
    return (isOfType == nullptr || (value.*isOfType)()) && (fits == nullptr || fits(value));
  }
};

constexpr double kLongest = 366.0 * 24 * 60 * 60;  // seconds

inline bool IsHex(std::wstring_view text) {
  if (text.starts_with(L"0x")) text.remove_prefix(2);
  return !text.empty() && text.size() <= 8 && std::ranges::all_of(text, &IsHexDigit);
}

inline constexpr PartForm kAnything{""};
inline constexpr PartForm kText{"a string", &Json::WideValue::IsString};
// Rejects an empty text, because every text contains it.
inline constexpr PartForm kSomeText{"a string that is not empty", &Json::WideValue::IsString,
                                    [](const auto& text) { return text.GetStringLength() != 0; }};
// For actions: false would have no meaning.
inline constexpr PartForm kTrue{"true, or omit the part", &Json::WideValue::IsTrue};
inline constexpr PartForm kBoolean{"true or false", &Json::WideValue::IsBool};
inline constexpr PartForm kCount{"a whole number from 0 to 4294967295", &Json::WideValue::IsUint};
inline constexpr PartForm kNumber{"a whole number", &Json::WideValue::IsInt};
inline constexpr PartForm kNumbers{
    "a whole number, or a list of at least one", nullptr, [](const auto& value) {
      const auto isNumber = [](const auto& one) { return one.IsInt(); };
      return isNumber(value) ||
             (value.IsArray() && !value.Empty() && std::ranges::all_of(value.GetArray(), isNumber));
    }};
inline constexpr PartForm kDigits{"6 or 8", &Json::WideValue::IsInt, [](const auto& number) {
                                    return number.GetInt() == 6 || number.GetInt() == 8;
                                  }};
inline constexpr PartForm kHex{"a string of one to eight hexadecimal digits, such as \"20000002\"",
                               &Json::WideValue::IsString,
                               [](const auto& text) { return IsHex(TextOf(text)); }};
inline constexpr PartForm kSeconds{
    "seconds, from 0 to 31622400", &Json::WideValue::IsNumber,
    [](const auto& number) { return number.GetDouble() >= 0 && number.GetDouble() <= kLongest; }};
inline constexpr PartForm kWholeSeconds{
    "whole seconds, from 0 to 31622400", &Json::WideValue::IsUint,
    [](const auto& number) { return number.GetUint() <= kLongest; }};
inline constexpr PartForm kObject{"an object", &Json::WideValue::IsObject};
inline constexpr PartForm kTextOrObject{"a string or an object", nullptr, [](const auto& value) {
                                          return value.IsString() || value.IsObject();
                                        }};
inline constexpr PartForm kTexts{
    "an object whose values are strings or null", &Json::WideValue::IsObject,
    [](const auto& object) {
      const auto fits = [](const auto& one) { return one.value.IsString() || one.value.IsNull(); };
      return std::all_of(object.MemberBegin(), object.MemberEnd(), fits);
    }};

// A part of a step, or a member of a part.
struct PartRule {
  const wchar_t* key = nullptr;
  const PartForm* form = &kAnything;
  bool required = false;               // in its object
  const wchar_t* companion = nullptr;  // another part that the same step must have
  bool simulated = false;              // has an effect only on a simulated machine
  const PartRule* members = nullptr;   // of an object; null allows any
  std::size_t memberCount = 0;

  std::span<const PartRule> Members() const { return {members, memberCount}; }
};

constexpr PartRule Required(const wchar_t* key, const PartForm& form) {
  return {.key = key, .form = &form, .required = true};
}

// Returns a rule for a part that is, or may be, an object with these members.
template <std::size_t Count>
constexpr PartRule RuleWith(const wchar_t* key, const PartForm& form,
                            const PartRule (&members)[Count]) {
  return {.key = key, .form = &form, .members = members, .memberCount = Count};
}

// The line on which each value of a JSON text starts.
using LineIndex = std::unordered_map<const Json::WideValue*, std::size_t>;

// `document` is ParseJson's result for `text`. The index refers to its values.
LineIndex LinesOf(const Json::WideDocument& document, const std::wstring& text);

// Maps NAME in ${NAME} to its replacement.
using Definitions = std::map<std::wstring, std::wstring>;

// Returns `text` with each ${NAME} replaced by its definition. An undefined ${NAME} is left
// unchanged, and NAME is passed to `unknown`. Inserted text is not expanded again.
using UnknownName = std::function<void(const std::wstring&)>;
std::wstring Expanded(const std::wstring& text, const Definitions& definitions,
                      const UnknownName& unknown = {});

// Returns a value as text, with definitions expanded: a string unchanged, any other value as JSON.
std::wstring Expanded(const Json::WideValue& value, const Definitions& definitions);

// Returns a member of `object` in the same form, or `absent` if there is none.
std::wstring MemberText(const Json::WideValue& object, const wchar_t* key,
                        const Definitions& definitions, const wchar_t* absent = L"");

// Returns every fault of a scenario, in order, each as "\n  line 4, step 2, \"expect.code\": ...":
// unknown parts, values of the wrong kind, undefined names, and expectations that the player could
// not check. Returns an empty string if the scenario can be played.
std::string FaultsOf(const Json::WideDocument& scenario, const LineIndex& lines,
                     const Definitions& definitions, const ModuleOptions& module);

}  // namespace Vx::Hosting::Tool
