#include "vxhost/play/scenario_check.h"

#include <algorithm>
#include <cwctype>
#include <iterator>
#include <set>
#include <span>
#include <string_view>

#include "hosting/text.h"
#include "vxhost/play/machine_steps.h"
#include "vxhost/play/scenario_rules.h"

namespace Vx::Hosting::Tool {

namespace {

using Json::WideValue;
using enum PartForm;

constexpr double kLongest = 366.0 * 24 * 60 * 60;  // seconds

constexpr PartRule kCopy[] = {{L"from", SomeText, Presence::Required},
                              {L"to", SomeText, Presence::Required}};
constexpr PartRule kWaitFor[] = {{L"file", SomeText, Presence::Required},
                                 {L"contains", Text},
                                 {L"seconds", WholeSeconds},
                                 {L"quiet", True}};
constexpr PartRule kExpect[] = {
    {.key = L"code", .form = Hex, .companion = L"exec"},
    {.key = L"answer", .form = Anything, .companion = L"exec"},
    {L"log", SomeText},
    {L"seconds", WholeSeconds},
    {L"stored", AnyObject},
    {.key = L"event", .form = SomeText, .needs = PartNeeds::SimulatedMachine},
    {.key = L"noEvent", .form = SomeText, .needs = PartNeeds::SimulatedMachine}};

// The parts of a step, except those that change the simulated machine.
constexpr PartRule kParts[] = {{L"say", Text},
                               {L"start", True},
                               {L"restart", True},
                               {L"end", True},
                               {L"store", AnyObject},
                               {L"exec", Count},
                               {.key = L"request", .form = Anything, .companion = L"exec"},
                               {L"power", Count},
                               {L"session", Count},
                               RuleWith(L"copy", Object, kCopy),
                               {L"remove", SomeText},
                               {L"run", SomeText},
                               {.key = L"arguments", .form = Text, .companion = L"run"},
                               RuleWith(L"waitFor", Object, kWaitFor),
                               {L"showStore", True},
                               RuleWith(L"expect", Object, kExpect)};

constexpr wchar_t kSteps[] = L"steps";
constexpr wchar_t kStore[] = L"store";
constexpr PartRule kBegin = {kStore, TextOrObject};

// Parts that only observe or print. A step with no others cannot cause an event.
constexpr std::wstring_view kOnlyLook[] = {L"say", L"expect", L"showStore", L"waitFor"};

constexpr const wchar_t* kCalls[] = {L"start", L"exec", L"policy", L"power", L"session"};

const PartRule* FindRule(std::span<const PartRule> rules, const std::wstring& key) {
  const auto found = std::ranges::find(rules, key, &PartRule::key);
  return found == rules.end() ? nullptr : &*found;
}

// Returns "; did you mean ..." with the closest of the keys of `rules` and `others`.
std::string Closest(const std::wstring& key, std::span<const PartRule> rules,
                    std::vector<std::string> others = {}) {
  for (const PartRule& rule : rules) others.push_back(Utf8(rule.key));
  return DidYouMean(Utf8(key), others);
}

bool IsHex(std::wstring_view text) {
  if (text.rfind(L"0x", 0) == 0) text.remove_prefix(2);
  return !text.empty() && text.size() <= 8 && std::ranges::all_of(text, &IsHexDigit);
}

// The test for each form, and the text that a message asks for if a value fails it.
constexpr struct {
  PartForm form;
  bool (*has)(const WideValue& value);
  const char* wanted;
} kForms[] = {
    {Text, [](const WideValue& value) { return value.IsString(); }, "a text"},
    {SomeText,
     [](const WideValue& value) { return value.IsString() && value.GetStringLength() != 0; },
     "a text that is not empty"},
    {True, [](const WideValue& value) { return value.IsTrue(); }, "true, or leave the part out"},
    {Boolean, [](const WideValue& value) { return value.IsBool(); }, "true or false"},
    {Count, [](const WideValue& value) { return value.IsUint(); },
     "a whole number from 0 to 4294967295"},
    {Number, [](const WideValue& value) { return value.IsInt(); }, "a whole number"},
    {Numbers,
     [](const WideValue& value) {
       return value.IsInt() || (value.IsArray() && !value.Empty() &&
                                std::all_of(value.Begin(), value.End(),
                                            [](const auto& one) { return one.IsInt(); }));
     },
     "a whole number, or a list of at least one"},
    {Digits,
     [](const WideValue& value) {
       return value.IsInt() && (value.GetInt() == 6 || value.GetInt() == 8);
     },
     "6 or 8"},
    {Hex, [](const WideValue& value) { return value.IsString() && IsHex(TextOf(value)); },
     "a text of one to eight hexadecimal digits, such as \"20000002\""},
    {Seconds,
     [](const WideValue& value) {
       return value.IsNumber() && value.GetDouble() >= 0 && value.GetDouble() <= kLongest;
     },
     "seconds, from 0 to 31622400"},
    {WholeSeconds,
     [](const WideValue& value) { return value.IsUint() && value.GetUint() <= kLongest; },
     "whole seconds, from 0 to 31622400"},
    {Object, [](const WideValue& value) { return value.IsObject(); }, "an object"},
    {AnyObject, [](const WideValue& value) { return value.IsObject(); }, "an object"},
    {Texts,
     [](const WideValue& value) {
       return value.IsObject() &&
              std::all_of(value.MemberBegin(), value.MemberEnd(), [](const auto& one) {
                return one.value.IsString() || one.value.IsNull();
              });
     },
     "an object whose values are texts or null"},
    {TextOrObject, [](const WideValue& value) { return value.IsString() || value.IsObject(); },
     "a text or an object"},
};

// Returns the form that `value` should have, or null if it has it.
const char* WantedInstead(PartForm form, const WideValue& value) {
  for (const auto& row : kForms) {
    if (row.form == form) return row.has(value) ? nullptr : row.wanted;
  }
  return nullptr;  // anything
}

// Returns the beginning of a value, for a message.
std::string Shown(const WideValue& value) {
  return Utf8(Shortened(Json::JsonText(value)));
}

class Checker {
 public:
  Checker(const LineIndex& index, const Definitions& names, HarnessKind harness)
      : lines(index), definitions(names), where(harness) {}

  std::vector<std::string> Check(const WideValue& scenario) {
    if (!scenario.IsObject()) {
      Add(scenario, {}, "is not a scenario, which is an object with the member \"steps\"");
      return faults;
    }
    Once(scenario, {});
    for (auto member = scenario.MemberBegin(); member != scenario.MemberEnd(); ++member) {
      const std::wstring key = member->name.GetString();
      if (key == kStore) {
        Part(kBegin, member->value, key, scenario);
        if (where != HarnessKind::Real) continue;
        Add(member->value, key,
            "would change the store of this machine: --private-store or --simulate");
      } else if (key != kSteps) {
        Add(member->value, key, "is not known" + DidYouMean(Utf8(key), {"steps", "store"}));
      }
    }
    const WideValue* steps = FindMember(scenario, kSteps);
    if (steps == nullptr || !steps->IsArray()) {
      Add(steps == nullptr ? scenario : *steps, kSteps, "has to be a list of steps");
      return faults;
    }
    for (const WideValue& one : steps->GetArray()) {
      ++step;
      Step(one);
    }
    return faults;
  }

 private:
  void Add(const WideValue& at, const std::wstring& key, const std::string& what) {
    std::string place = "line " + std::to_string(lines.LineOf(at));
    if (step != 0) place += ", step " + std::to_string(step);
    if (!key.empty()) place += ", \"" + Utf8(key) + "\"";
    faults.push_back(place + ": " + what);
  }

  void Step(const WideValue& one) {
    if (!one.IsObject()) {
      Add(one, {}, "is not a step, which is an object");
      return;
    }
    Once(one, {});
    for (auto part = one.MemberBegin(); part != one.MemberEnd(); ++part) {
      const std::wstring key = part->name.GetString();
      const PartRule* rule = FindRule(kParts, key);
      if (rule == nullptr) rule = FindMachineRule(key);
      if (rule == nullptr) {
        Add(part->value, key, "is not a part of a step" + Closest(key, kParts, MachineKeys()));
        continue;
      }
      Part(*rule, part->value, key, one);
    }
    Liveness(one);
    if (const WideValue* expect = FindMember(one, L"expect");
        expect != nullptr && expect->IsObject()) {
      Observation(one, *expect);
    }
  }

  void Part(const PartRule& rule, const WideValue& value, const std::wstring& key,
            const WideValue& one) {
    if (rule.needs == PartNeeds::SimulatedMachine && where != HarnessKind::Simulated) {
      Add(value, key, "needs a simulated machine: --simulate");
    }
    if (rule.companion != nullptr && FindMember(one, rule.companion) == nullptr) {
      Add(value, key, "means nothing without \"" + Utf8(rule.companion) + "\" in the same step");
    }
    if (const char* wanted = WantedInstead(rule.form, value)) {
      Add(value, key, "is " + Shown(value) + "; wanted: " + wanted);
      return;
    }
    if (value.IsObject() && rule.members != nullptr) {
      Members(value, rule.Members(), key, one);
    } else {
      Names(value, key);
    }
  }

  void Members(const WideValue& object, std::span<const PartRule> rules, const std::wstring& path,
               const WideValue& one) {
    const std::wstring prefix = path + L".";
    Once(object, prefix);
    for (auto member = object.MemberBegin(); member != object.MemberEnd(); ++member) {
      const std::wstring key = member->name.GetString();
      const PartRule* rule = FindRule(rules, key);
      if (rule == nullptr) {
        Add(member->value, prefix + key, "is not known" + Closest(key, rules));
      } else {
        Part(*rule, member->value, prefix + key, one);
      }
    }
    for (const PartRule& rule : rules) {
      if (rule.presence == Presence::Optional || FindMember(object, rule.key) != nullptr) continue;
      Add(object, path, "lacks \"" + Utf8(rule.key) + "\"");
    }
  }

  // A second value with the same key would be ignored.
  void Once(const WideValue& object, const std::wstring& prefix) {
    std::set<std::wstring> seen;
    for (auto member = object.MemberBegin(); member != object.MemberEnd(); ++member) {
      const std::wstring key = member->name.GetString();
      if (!seen.insert(key).second) Add(member->value, prefix + key, "stands here a second time");
    }
  }

  // An undefined name would be sent or expected literally.
  void Names(const WideValue& value, const std::wstring& key) {
    if (value.IsString()) {
      Expanded(TextOf(value), definitions, [&](const std::wstring& name) {
        const std::string text = Utf8(name);
        Add(value, key,
            "holds ${" + text + "}, which has no definition: --define \"" + text + "=VALUE\"");
      });
    } else if (value.IsArray()) {
      for (const WideValue& element : value.GetArray()) Names(element, key);
    } else if (value.IsObject()) {
      for (auto member = value.MemberBegin(); member != value.MemberEnd(); ++member) {
        Names(member->name, key);
        Names(member->value, key);
      }
    }
  }

  // Tracks whether a service exists: after "end" there is none to call.
  void Liveness(const WideValue& one) {
    if (FindMember(one, L"end") != nullptr) ended = true;
    if (FindMember(one, L"restart") != nullptr) ended = false;
    if (!ended) return;
    for (const wchar_t* call : kCalls) {
      const WideValue* value = FindMember(one, call);
      if (value != nullptr) Add(*value, call, "follows \"end\"; only \"restart\" may");
    }
  }

  void Observation(const WideValue& one, const WideValue& expect) {
    if (const WideValue* seconds = FindMember(expect, L"seconds");
        seconds != nullptr && FindMember(expect, L"log") == nullptr) {
      Add(*seconds, L"expect.seconds", "means nothing without \"expect.log\"");
    }
    const WideValue* unwanted = FindMember(expect, L"noEvent");
    if (unwanted == nullptr) return;
    const bool acts = std::any_of(one.MemberBegin(), one.MemberEnd(), [](const auto& part) {
      return std::find(std::begin(kOnlyLook), std::end(kOnlyLook), TextOf(part.name)) ==
             std::end(kOnlyLook);
    });
    if (!acts) {
      Add(*unwanted, L"expect.noEvent",
          "is met by any machine, because this step lets nothing happen");
    }
  }

  const LineIndex& lines;
  const Definitions& definitions;
  HarnessKind where;
  std::vector<std::string> faults;
  std::size_t step = 0;
  bool ended = false;
};

// Returns the lines on which the strings, numbers, literals, objects and arrays of a valid JSON
// text start, keys included, in order.
std::vector<std::size_t> TokenLines(const std::wstring& text) {
  std::vector<std::size_t> tokens;
  std::size_t line = 1;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const wchar_t unit = text[i];
    if (unit == L'\n') ++line;
    if (unit == L'{' || unit == L'[') tokens.push_back(line);
    if (unit == L'"') {
      tokens.push_back(line);
      for (++i; i < text.size() && text[i] != L'"'; ++i) {
        if (text[i] == L'\\') ++i;
      }
    } else if (unit == L'-' || std::iswalnum(static_cast<wint_t>(unit)) != 0) {
      tokens.push_back(line);
      while (i + 1 < text.size() && text.find_first_of(L",]} \t\r\n", i + 1) != i + 1) ++i;
    }
  }
  return tokens;
}

}  // namespace

LineIndex::LineIndex(const Json::WideDocument& document, const std::wstring& text) {
  const std::vector<std::size_t> tokens = TokenLines(text);
  auto token = tokens.begin();
  const auto take = [&](const auto& self, const WideValue& value) -> void {
    if (token == tokens.end()) return;
    lines[&value] = *token++;
    if (value.IsArray()) {
      for (const WideValue& element : value.GetArray()) self(self, element);
    } else if (value.IsObject()) {
      for (auto member = value.MemberBegin(); member != value.MemberEnd(); ++member) {
        self(self, member->name);
        self(self, member->value);
      }
    }
  };
  take(take, document);  // the parser limits the depth
}

std::size_t LineIndex::LineOf(const WideValue& value) const {
  const auto found = lines.find(&value);
  return found == lines.end() ? 0 : found->second;
}

std::wstring Expanded(const std::wstring& text, const Definitions& definitions,
                      const UnknownName& unknown) {
  std::wstring result;
  std::size_t done = 0;
  for (;;) {
    const std::size_t begin = text.find(L"${", done);
    if (begin == text.npos) return result + text.substr(done);
    // No name contains a character that could end a JSON string.
    const std::size_t end = text.find_first_of(L"} {$\"\\", begin + 2);
    if (end == text.npos || text[end] != L'}') {
      result += text.substr(done, begin + 2 - done);
      done = begin + 2;
      continue;
    }
    const std::wstring name = text.substr(begin + 2, end - begin - 2);
    result += text.substr(done, begin - done);
    const auto found = definitions.find(name);
    if (found != definitions.end()) {
      result += found->second;
    } else {
      result += text.substr(begin, end + 1 - begin);
      if (unknown) unknown(name);
    }
    done = end + 1;
  }
}

std::vector<std::string> FaultsOf(const Json::WideDocument& scenario, const LineIndex& lines,
                                  const Definitions& definitions, HarnessKind where) {
  return Checker(lines, definitions, where).Check(scenario);
}

}  // namespace Vx::Hosting::Tool
