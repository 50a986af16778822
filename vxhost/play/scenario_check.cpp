#include "vxhost/play/scenario_check.h"

#include <iterator>
#include <set>
#include <vector>

#include "hosting/json_row.h"
#include "vxhost/play/machine_steps.h"

namespace Vx::Hosting::Tool {

namespace {

using Json::WideValue;

constexpr PartRule kCopy[] = {Required(L"from", kSomeText), Required(L"to", kSomeText)};
constexpr PartRule kWaitFor[] = {Required(L"file", kSomeText),
                                 {L"contains", &kText},
                                 {L"seconds", &kWholeSeconds},
                                 {L"quiet", &kTrue}};
constexpr PartRule kExpect[] = {{.key = L"code", .form = &kHex, .companion = L"exec"},
                                {.key = L"answer", .form = &kAnything, .companion = L"exec"},
                                {L"log", &kSomeText},
                                {L"seconds", &kWholeSeconds},
                                {L"stored", &kObject},
                                {.key = L"event", .form = &kSomeText, .simulated = true},
                                {.key = L"noEvent", .form = &kSomeText, .simulated = true}};

// The parts of a step, except those that change the simulated machine.
constexpr PartRule kParts[] = {{L"say", &kText},
                               {L"start", &kTrue},
                               {L"restart", &kTrue},
                               {L"end", &kTrue},
                               {L"store", &kObject},
                               {L"exec", &kCount},
                               {.key = L"request", .form = &kAnything, .companion = L"exec"},
                               {L"power", &kCount},
                               {L"session", &kCount},
                               RuleWith(L"copy", kObject, kCopy),
                               {L"remove", &kSomeText},
                               {L"run", &kSomeText},
                               {.key = L"arguments", .form = &kText, .companion = L"run"},
                               RuleWith(L"waitFor", kObject, kWaitFor),
                               {L"showStore", &kTrue},
                               RuleWith(L"expect", kObject, kExpect)};

constexpr wchar_t kSteps[] = L"steps";
constexpr wchar_t kStore[] = L"store";
constexpr PartRule kBegin = {kStore, &kTextOrObject};

// Parts that only observe or print. A step with no others cannot cause an event.
constexpr std::wstring_view kOnlyLook[] = {L"say", L"expect", L"showStore", L"waitFor"};

constexpr const wchar_t* kCalls[] = {L"start", L"exec", L"policy", L"power", L"session"};

// Returns the rules of all parts of a step.
std::vector<PartRule> StepRules() {
  std::vector<PartRule> rules = MachineRules();
  rules.insert(rules.end(), std::begin(kParts), std::end(kParts));
  return rules;
}

// Returns the start of a value, for a message.
std::string Shown(const WideValue& value) {
  return Utf8(Shortened(Json::JsonText(value)));
}

class Checker {
 public:
  Checker(const LineIndex& index, const Definitions& names, const ModuleOptions& options)
      : lines(index), definitions(names), module(options) {}

  std::string Check(const WideValue& scenario) {
    if (!scenario.IsObject()) {
      Add(scenario, {}, "is not a scenario, which is an object with the member \"steps\"");
      return faults;
    }
    Once(scenario, {});
    for (auto member = scenario.MemberBegin(); member != scenario.MemberEnd(); ++member) {
      const std::wstring key = member->name.GetString();
      if (key == kStore) {
        Part(kBegin, member->value, key, scenario);
        if (module.simulate || module.privateStore) continue;
        Add(member->value, key,
            "would change this machine's store: use --private-store or --simulate");
      } else if (key != kSteps) {
        Add(member->value, key, "is not known" + DidYouMean(Utf8(key), {"steps", "store"}));
      }
    }
    const WideValue* steps = FindMember(scenario, kSteps);
    if (steps == nullptr || !steps->IsArray()) {
      Add(steps == nullptr ? scenario : *steps, kSteps, "must be a list of steps");
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
    faults += "\n  line " + std::to_string(lines.at(&at));
    if (step != 0) faults += ", step " + std::to_string(step);
    if (!key.empty()) faults += ", \"" + Utf8(key) + "\"";
    faults += ": " + what;
  }

  void Step(const WideValue& one) {
    if (!one.IsObject()) {
      Add(one, {}, "is not a step, which is an object");
      return;
    }
    Members(one, parts, {}, one);
    Liveness(one);
    Observation(one);
  }

  void Part(const PartRule& rule, const WideValue& value, const std::wstring& key,
            const WideValue& one) {
    if (rule.simulated && !module.simulate) {
      Add(value, key, "needs a simulated machine: --simulate");
    }
    if (rule.companion != nullptr && FindMember(one, rule.companion) == nullptr) {
      Add(value, key, "means nothing without \"" + Utf8(rule.companion) + "\" in the same step");
    }
    if (!rule.form->Accepts(value)) {
      Add(value, key, "is " + Shown(value) + "; wanted: " + rule.form->wanted);
      return;
    }
    if (value.IsObject() && rule.members != nullptr) {
      Members(value, rule.Members(), key, one);
    } else {
      Names(value, key);
    }
  }

  // `path` is the keys that lead to `object` in the step `one`. It is empty for the step itself.
  void Members(const WideValue& object, std::span<const PartRule> rules, const std::wstring& path,
               const WideValue& one) {
    const std::wstring prefix = path.empty() ? path : path + L".";
    Once(object, prefix);
    for (auto member = object.MemberBegin(); member != object.MemberEnd(); ++member) {
      const std::wstring key = member->name.GetString();
      const auto rule = std::ranges::find(rules, key, &PartRule::key);
      if (rule == rules.end()) {
        std::vector<std::string> keys;
        for (const PartRule& known : rules) keys.push_back(Utf8(known.key));
        Add(member->value, prefix + key,
            (path.empty() ? "is not a part of a step" : "is not known") +
                DidYouMean(Utf8(key), keys));
      } else {
        Part(*rule, member->value, prefix + key, one);
      }
    }
    for (const PartRule& rule : rules) {
      if (!rule.required || FindMember(object, rule.key) != nullptr) continue;
      Add(object, path, "lacks \"" + Utf8(rule.key) + "\"");
    }
  }

  // Rejects repeated keys, because a second value would be ignored.
  void Once(const WideValue& object, const std::wstring& prefix) {
    std::set<std::wstring> seen;
    for (auto member = object.MemberBegin(); member != object.MemberEnd(); ++member) {
      const std::wstring key = member->name.GetString();
      if (!seen.insert(key).second) Add(member->value, prefix + key, "appears twice");
    }
  }

  // Rejects undefined names, which would be sent or expected literally.
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

  void Observation(const WideValue& one) {
    const WideValue* expect = FindMember(one, L"expect");
    if (expect == nullptr || !expect->IsObject()) return;
    const WideValue* seconds = FindMember(*expect, L"seconds");
    if (seconds != nullptr && FindMember(*expect, L"log") == nullptr) {
      Add(*seconds, L"expect.seconds", "means nothing without \"expect.log\"");
    }
    const WideValue* unwanted = FindMember(*expect, L"noEvent");
    if (unwanted == nullptr) return;
    const bool acts = std::any_of(one.MemberBegin(), one.MemberEnd(), [](const auto& part) {
      return std::ranges::find(kOnlyLook, TextOf(part.name)) == std::end(kOnlyLook);
    });
    if (!acts) {
      Add(*unwanted, L"expect.noEvent",
          "is met on any machine, because nothing happens in this step");
    }
  }

  const LineIndex& lines;
  const Definitions& definitions;
  const ModuleOptions& module;
  const std::vector<PartRule> parts = StepRules();
  std::string faults;
  std::size_t step = 0;
  bool ended = false;
};

}  // namespace

LineIndex LinesOf(const Json::WideDocument& document, const std::wstring& text) {
  LineIndex lines;
  std::size_t line = 1;
  std::size_t at = 0;  // the end of the last value, or the beginning of its members or elements
  const auto take = [&](const auto& self, const WideValue& value) -> void {
    const std::size_t begin = std::min(text.find_first_not_of(L",:]} \t\r\n", at), text.size());
    line += static_cast<std::size_t>(std::count(&text[at], &text[begin], L'\n'));
    lines[&value] = line;
    at = std::min(begin + 1, text.size());
    if (value.IsArray()) {
      for (const WideValue& element : value.GetArray()) self(self, element);
    } else if (value.IsObject()) {
      for (auto member = value.MemberBegin(); member != value.MemberEnd(); ++member) {
        self(self, member->name);
        self(self, member->value);
      }
    } else if (value.IsString()) {
      while (at < text.size() && text[at] != L'"') at += text[at] == L'\\' ? 2 : 1;
      at = std::min(at + 1, text.size());
    } else {
      at = std::min(text.find_first_of(L",]} \t\r\n", at), text.size());
    }
  };
  take(take, document);  // the parser limits the depth
  return lines;
}

std::wstring Expanded(const std::wstring& text, const Definitions& definitions,
                      const UnknownName& unknown) {
  std::wstring result;
  for (std::size_t at = 0; at < text.size();) {
    // A name contains no character that would leave the JSON string.
    const bool begins = text.compare(at, 2, L"${") == 0;
    const std::size_t end = begins ? text.find_first_of(L"} {$\"\\", at + 2) : text.npos;
    if (end == text.npos || text[end] != L'}') {
      result += text[at++];
      continue;
    }
    const std::wstring name = text.substr(at + 2, end - at - 2);
    const auto found = definitions.find(name);
    if (found == definitions.end() && unknown) unknown(name);
    result += found == definitions.end() ? L"${" + name + L"}" : found->second;
    at = end + 1;
  }
  return result;
}

std::wstring Expanded(const WideValue& value, const Definitions& definitions) {
  if (value.IsString()) return Expanded(TextOf(value), definitions);
  Definitions escaped;
  for (const auto& [name, content] : definitions) {
    const std::wstring quoted = Quoted(content);
    escaped[name] = quoted.substr(1, quoted.size() - 2);
  }
  return Expanded(Json::JsonText(value), escaped);
}

std::wstring MemberText(const WideValue& object, const wchar_t* key, const Definitions& definitions,
                        const wchar_t* absent) {
  const WideValue* member = FindMember(object, key);
  return member == nullptr ? absent : Expanded(*member, definitions);
}

std::string FaultsOf(const Json::WideDocument& scenario, const LineIndex& lines,
                     const Definitions& definitions, const ModuleOptions& module) {
  return Checker(lines, definitions, module).Check(scenario);
}

}  // namespace Vx::Hosting::Tool
