#pragma once

#include <cstddef>

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

// One part of a step, or one member of a part.
struct PartRule {
  const wchar_t* key = nullptr;
  PartForm form = PartForm::Anything;
  const PartRule* members = nullptr;  // of an object
  std::size_t memberCount = 0;
  bool required = false;               // in its object
  const wchar_t* companion = nullptr;  // another part that the step needs for it
  PartNeeds needs = PartNeeds::Nothing;
};

}  // namespace Vx::Host
