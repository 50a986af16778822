#pragma once

#include <cstddef>
#include <span>

namespace Vx::Hosting::Tool {

// The form of a part's value.
enum class PartForm {
  Text,
  SomeText,  // not empty, since every text contains an empty one
  True,      // for actions: false would have no meaning
  Boolean,
  Count,    // an integer from 0 to 4,294,967,295
  Number,   // a 32-bit integer
  Numbers,  // one, or a non-empty list
  Digits,   // 6 or 8
  Hex,      // a string such as "0x20000002"
  Seconds,  // 0 to a year, fractions allowed
  WholeSeconds,
  Object,  // with the members listed in the rule
  TextOrObject,
  AnyObject,
  Texts,  // an object of strings and nulls
  Anything,
};

// What a part requires to have an effect.
enum class PartNeeds { Nothing, SimulatedMachine };

enum class Presence { Optional, Required };  // of a member in its object

// A part of a step, or a member of a part.
struct PartRule {
  const wchar_t* key = nullptr;
  PartForm form = PartForm::Anything;
  Presence presence = Presence::Optional;
  const wchar_t* companion = nullptr;  // another part that the step must have with it
  PartNeeds needs = PartNeeds::Nothing;
  const PartRule* members = nullptr;  // of an object
  std::size_t memberCount = 0;

  std::span<const PartRule> Members() const { return {members, memberCount}; }
};

// Returns a rule for a part that is, or may be, an object with these members.
template <std::size_t Count>
constexpr PartRule RuleWith(const wchar_t* key, PartForm form, const PartRule (&members)[Count]) {
  return {.key = key, .form = form, .members = members, .memberCount = Count};
}

}  // namespace Vx::Hosting::Tool
