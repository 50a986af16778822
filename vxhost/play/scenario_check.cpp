#include "vxhost/play/scenario_check.h"

#include <algorithm>
#include <cstdint>
#include <cwctype>
#include <iterator>
#include <set>
#include <string_view>

#include "hosting/text.h"
#include "vxhost/play/machine_steps.h"
#include "vxhost/play/scenario_rules.h"

namespace Vx::Host {

namespace {

using Json::WideValue;

constexpr double kLongest = 366.0 * 24 * 60 * 60;  // seconds

constexpr PartRule kCopy[] = {{.key = L"from", .form = PartForm::SomeText, .required = true},
                              {.key = L"to", .form = PartForm::SomeText, .required = true}};
constexpr PartRule kWaitFor[] = {{.key = L"file", .form = PartForm::SomeText, .required = true},
                                 {.key = L"contains", .form = PartForm::Text},
                                 {.key = L"seconds", .form = PartForm::WholeSeconds},
                                 {.key = L"quiet", .form = PartForm::True}};
constexpr PartRule kExpect[] = {
    {.key = L"code", .form = PartForm::Hex, .companion = L"exec"},
    {.key = L"answer", .form = PartForm::Anything, .companion = L"exec"},
    {.key = L"log", .form = PartForm::SomeText},
    {.key = L"seconds", .form = PartForm::WholeSeconds},
    {.key = L"stored", .form = PartForm::AnyObject},
    {.key = L"event", .form = PartForm::SomeText, .needs = PartNeeds::SimulatedMachine},
    {.key = L"noEvent", .form = PartForm::SomeText, .needs = PartNeeds::SimulatedMachine}};

// The parts of a step, without those that change the simulated machine.
constexpr PartRule kParts[] = {
    {.key = L"say", .form = PartForm::Text},
    {.key = L"start", .form = PartForm::True},
    {.key = L"restart", .form = PartForm::True},
    {.key = L"end", .form = PartForm::True},
    {.key = L"store", .form = PartForm::AnyObject},
    {.key = L"exec", .form = PartForm::Count},
    {.key = L"request", .form = PartForm::Anything, .companion = L"exec"},
    {.key = L"power", .form = PartForm::Count},
    {.key = L"session", .form = PartForm::Count},
    {.key = L"copy", .form = PartForm::Object, .members = kCopy, .memberCount = std::size(kCopy)},
    {.key = L"remove", .form = PartForm::SomeText},
    {.key = L"run", .form = PartForm::SomeText},
    {.key = L"arguments", .form = PartForm::Text, .companion = L"run"},
    {.key = L"waitFor",
     .form = PartForm::Object,
     .members = kWaitFor,
     .memberCount = std::size(kWaitFor)},
    {.key = L"showStore", .form = PartForm::True},
    {.key = L"expect",
     .form = PartForm::Object,
     .members = kExpect,
     .memberCount = std::size(kExpect)}};

constexpr wchar_t kSteps[] = L"steps";
constexpr wchar_t kStore[] = L"store";
constexpr PartRule kBegin = {.key = kStore, .form = PartForm::TextOrObject};

// Parts without which a step does nothing that could be observed.
constexpr std::wstring_view kOnlyLook[] = {L"say", L"expect", L"showStore", L"waitFor"};

// Parts that call the service.
constexpr const wchar_t* kCalls[] = {L"start", L"exec", L"policy", L"power", L"session"};

const PartRule* FindRule(const PartRule* rules, std::size_t count, const std::wstring& key) {
  const auto* found =
      std::find_if(rules, rules + count, [&key](const PartRule& rule) { return key == rule.key; });
  return found == rules + count ? nullptr : found;
}

bool IsHex(std::wstring_view text) {
  if (text.rfind(L"0x", 0) == 0) text.remove_prefix(2);
  return !text.empty() && text.size() <= 8 &&
         std::all_of(text.begin(), text.end(), [](wchar_t digit) {
           return digit < 0x80 && std::iswxdigit(static_cast<wint_t>(digit)) != 0;
         });
}

std::wstring_view TextOf(const WideValue& value) {
  return {value.GetString(), value.GetStringLength()};
}

// What is wanted instead of `value`. Null when it has the form.
const char* WantedInstead(PartForm form, const WideValue& value) {
  const auto unless = [](bool right, const char* wanted) { return right ? nullptr : wanted; };
  switch (form) {
    case PartForm::Text:
      return unless(value.IsString(), "a text");
    case PartForm::SomeText:
      return unless(value.IsString() && value.GetStringLength() != 0, "a text that is not empty");
    case PartForm::True:
      return unless(value.IsTrue(), "true, or leave the part out");
    case PartForm::Boolean:
      return unless(value.IsBool(), "true or false");
    case PartForm::Count:
      return unless(value.IsUint(), "a whole number from 0 to 4294967295");
    case PartForm::Number:
      return unless(value.IsInt(), "a whole number");
    case PartForm::Numbers:
      return unless(value.IsInt() || (value.IsArray() && !value.Empty() &&
                                      std::all_of(value.Begin(), value.End(),
                                                  [](const auto& one) { return one.IsInt(); })),
                    "a whole number, or a list of at least one");
    case PartForm::Digits:
      return unless(value.IsInt() && (value.GetInt() == 6 || value.GetInt() == 8), "6 or 8");
    case PartForm::Hex:
      return unless(value.IsString() && IsHex(TextOf(value)),
                    "a text of one to eight hexadecimal digits, such as \"20000002\"");
    case PartForm::Seconds:
      return unless(value.IsNumber() && value.GetDouble() >= 0 && value.GetDouble() <= kLongest,
                    "seconds, from 0 to 31622400");
    case PartForm::WholeSeconds:
      return unless(value.IsUint() && value.GetUint() <= kLongest,
                    "whole seconds, from 0 to 31622400");
    case PartForm::Object:
    case PartForm::AnyObject:
      return unless(value.IsObject(), "an object");
    case PartForm::Texts:
      return unless(value.IsObject() && std::all_of(value.MemberBegin(), value.MemberEnd(),
                                                    [](const auto& one) {
                                                      return one.value.IsString() ||
                                                             one.value.IsNull();
                                                    }),
                    "an object whose values are texts or null");
    case PartForm::TextOrObject:
      return unless(value.IsString() || value.IsObject(), "a text or an object");
    case PartForm::Anything:
      return nullptr;
  }
  return nullptr;
}

// The beginning of a value, for a message.
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
      const PartRule* rule = FindRule(kParts, std::size(kParts), key);
      if (rule == nullptr) rule = FindMachineRule(key);
      if (rule == nullptr) {
        Add(part->value, key, "is not a part of a step" + Closest(key));
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

  static std::string Closest(const std::wstring& key) {
    std::vector<std::string> names = MachineKeys();
    for (const PartRule& rule : kParts) names.push_back(Utf8(rule.key));
    return DidYouMean(Utf8(key), names);
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
      Members(value, rule.members, rule.memberCount, key, one);
    } else {
      Names(value, key);
    }
  }

  void Members(const WideValue& object, const PartRule* rules, std::size_t count,
               const std::wstring& path, const WideValue& one) {
    const std::wstring prefix = path + L".";
    Once(object, prefix);
    for (auto member = object.MemberBegin(); member != object.MemberEnd(); ++member) {
      const std::wstring key = member->name.GetString();
      const PartRule* rule = FindRule(rules, count, key);
      if (rule == nullptr) {
        std::vector<std::string> names;
        for (std::size_t i = 0; i < count; ++i) names.push_back(Utf8(rules[i].key));
        Add(member->value, prefix + key, "is not known" + DidYouMean(Utf8(key), names));
      } else {
        Part(*rule, member->value, prefix + key, one);
      }
    }
    for (std::size_t i = 0; i < count; ++i) {
      if (!rules[i].required || FindMember(object, rules[i].key) != nullptr) continue;
      Add(object, path, "lacks \"" + Utf8(rules[i].key) + "\"");
    }
  }

  // A second value under the same key would be ignored.
  void Once(const WideValue& object, const std::wstring& prefix) {
    std::set<std::wstring> seen;
    for (auto member = object.MemberBegin(); member != object.MemberEnd(); ++member) {
      const std::wstring key = member->name.GetString();
      if (!seen.insert(key).second) Add(member->value, prefix + key, "stands here a second time");
    }
  }

  // A name that stays in a text would be sent, or be expected.
  void Names(const WideValue& value, const std::wstring& key) {
    if (value.IsString()) {
      Expanded(std::wstring(TextOf(value)), definitions, [&](const std::wstring& name) {
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

  // After "end" there is no service to call.
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

// The lines on which the strings, numbers, literals, objects and arrays of a valid JSON text begin,
// keys included, in order.
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
  take(take, document);  // the parser bounds the depth
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
    // No name holds what could end a text in JSON.
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

}  // namespace Vx::Host
