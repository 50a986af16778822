#pragma once

#include <cstddef>
#include <span>

namespace Vx::Host {

// What a part of a scenario has to be.
enum class PartForm {
  Text,
  SomeText,  // not empty: an empty one is part of every text
  True,      // a part that only happens; false would claim nothing
  Boolean,
  Count,    // a whole number of 0 to 4,294,967,295
  Number,   // a whole number of 32 bits
  Numbers,  // one, or a list of at least one
  Digits,   // 6 or 8
  Hex,      // a text such as "0x20000002"
  Seconds,  // 0 to a year, perhaps with a fraction
  WholeSeconds,
  Object,  // with the members that the rule names
  TextOrObject,
  AnyObject,
  Texts,  // an object of texts and nulls
  Anything,
};

// What has to be there for a part to mean anything.
enum class PartNeeds { Nothing, SimulatedMachine };

enum class Presence { Optional, Required };  // of a member in its object

// One part of a step, or one member of a part.
struct PartRule {
  const wchar_t* key = nullptr;
  PartForm form = PartForm::Anything;
  Presence presence = Presence::Optional;
  const wchar_t* companion = nullptr;  // another part that the step needs for it
  PartNeeds needs = PartNeeds::Nothing;
  const PartRule* members = nullptr;  // of an object
  std::size_t memberCount = 0;

  std::span<const PartRule> Members() const { return {members, memberCount}; }
};

// The rule of a part that is or may be an object with these members.
template <std::size_t Count>
constexpr PartRule RuleWith(const wchar_t* key, PartForm form, const PartRule (&members)[Count]) {
  return {.key = key, .form = form, .members = members, .memberCount = Count};
}

}  // namespace Vx::Host
