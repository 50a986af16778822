#pragma once

#include <algorithm>
#include <cstddef>
#include <span>
#include <string_view>

#include "hosting/text.h"
#include "json/json_text.h"

namespace Vx::Hosting::Tool {

// The form of a part's value: a test, and a description of the form for error messages.
struct PartForm {
  bool (*has)(const Json::WideValue& value);
  const char* wanted;
};

constexpr double kLongest = 366.0 * 24 * 60 * 60;  // seconds

inline bool IsHex(std::wstring_view text) {
  if (text.starts_with(L"0x")) text.remove_prefix(2);
  return !text.empty() && text.size() <= 8 && std::ranges::all_of(text, &IsHexDigit);
}

inline constexpr PartForm kAnything = {[](const auto&) { return true; }, ""};
inline constexpr PartForm kText = {[](const auto& value) { return value.IsString(); }, "a string"};
// Rejects an empty text, because every text contains it.
inline constexpr PartForm kSomeText = {
    [](const auto& value) { return value.IsString() && value.GetStringLength() != 0; },
    "a string that is not empty"};
// For actions: false would have no meaning.
inline constexpr PartForm kTrue = {[](const auto& value) { return value.IsTrue(); },
                                   "true, or omit the part"};
inline constexpr PartForm kBoolean = {[](const auto& value) { return value.IsBool(); },
                                      "true or false"};
inline constexpr PartForm kCount = {[](const auto& value) { return value.IsUint(); },
                                    "a whole number from 0 to 4294967295"};
inline constexpr PartForm kNumber = {[](const auto& value) { return value.IsInt(); },
                                     "a whole number"};
inline constexpr PartForm kNumbers = {
    [](const auto& value) {
      const auto isNumber = [](const auto& one) { return one.IsInt(); };
      return isNumber(value) ||
             (value.IsArray() && !value.Empty() && std::ranges::all_of(value.GetArray(), isNumber));
    },
    "a whole number, or a list of at least one"};
inline constexpr PartForm kDigits = {
    [](const auto& value) { return value.IsInt() && (value.GetInt() == 6 || value.GetInt() == 8); },
    "6 or 8"};
inline constexpr PartForm kHex = {
    [](const auto& value) { return value.IsString() && IsHex(TextOf(value)); },
    "a string of one to eight hexadecimal digits, such as \"20000002\""};
inline constexpr PartForm kSeconds = {[](const auto& value) {
                                        return value.IsNumber() && value.GetDouble() >= 0 &&
                                               value.GetDouble() <= kLongest;
                                      },
                                      "seconds, from 0 to 31622400"};
inline constexpr PartForm kWholeSeconds = {
    [](const auto& value) { return value.IsUint() && value.GetUint() <= kLongest; },
    "whole seconds, from 0 to 31622400"};
inline constexpr PartForm kObject = {[](const auto& value) { return value.IsObject(); },
                                     "an object"};
inline constexpr PartForm kTextOrObject = {
    [](const auto& value) { return value.IsString() || value.IsObject(); },
    "a string or an object"};
inline constexpr PartForm kTexts = {
    [](const auto& value) {
      const auto fits = [](const auto& one) { return one.value.IsString() || one.value.IsNull(); };
      return value.IsObject() && std::all_of(value.MemberBegin(), value.MemberEnd(), fits);
    },
    "an object whose values are strings or null"};

enum class Presence { Optional, Required };  // of a member in its object

// A part of a step, or a member of a part.
struct PartRule {
  const wchar_t* key = nullptr;
  const PartForm* form = &kAnything;
  Presence presence = Presence::Optional;
  const wchar_t* companion = nullptr;  // another part that the same step must have
  bool simulated = false;              // has an effect only on a simulated machine
  const PartRule* members = nullptr;   // of an object; null allows any
  std::size_t memberCount = 0;

  std::span<const PartRule> Members() const { return {members, memberCount}; }
};

// Returns a rule for a part that is, or may be, an object with these members.
template <std::size_t Count>
constexpr PartRule RuleWith(const wchar_t* key, const PartForm& form,
                            const PartRule (&members)[Count]) {
  return {.key = key, .form = &form, .members = members, .memberCount = Count};
}

}  // namespace Vx::Hosting::Tool
