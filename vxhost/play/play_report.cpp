#include "vxhost/play/play_report.h"

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <iterator>

#include "hosting/text.h"
#include "vxhost/common/console.h"

namespace Vx::Host {

namespace {

using Json::WideValue;
using std::chrono::milliseconds;

double Seconds(milliseconds length) {
  return static_cast<double>(length.count()) / 1000;
}

std::string SecondsText(milliseconds length) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f", Seconds(length));
  return text;
}

const wchar_t* NameOf(Happening what) {
  switch (what) {
    case Happening::Call:
      return L"call";
    case Happening::Command:
      return L"command";
    case Happening::Event:
      return L"event";
    case Happening::Log:
      return L"log";
    case Happening::Failure:
      return L"failure";
  }
  return L"";
}

void AddCommandMembers(WideValue& object, std::uint32_t id, const CommandResult& answer,
                       Json::WidePool& pool) {
  wchar_t code[16];
  std::swprintf(code, std::size(code), L"0x%08X", answer.code);
  object.AddMember(L"id", id, pool);
  object.AddMember(L"code", WideValue(code, pool), pool);
  object.AddMember(L"meaning", WideValue(Wide(MeaningOf(answer.code)), pool), pool);
  WideValue value;
  if (answer.text) {
    Json::WideDocument parsed(&pool);
    if (Json::ParseJson(parsed, *answer.text)) {
      value.Swap(parsed);
    } else {
      value.SetString(*answer.text, pool);
    }
  }
  object.AddMember(L"answer", value, pool);
}

WideValue EntryJson(const RecordEntry& entry, Json::WidePool& pool) {
  WideValue object(rapidjson::kObjectType);
  object.AddMember(L"kind", WideValue(NameOf(entry.what), pool), pool);
  object.AddMember(L"seconds", Seconds(entry.at), pool);
  switch (entry.what) {
    case Happening::Command:
      object.AddMember(L"request", WideValue(entry.request, pool), pool);
      AddCommandMembers(object, entry.command, entry.answer, pool);
      break;
    case Happening::Log:
      object.AddMember(L"level", WideValue(entry.log.level, pool), pool);
      object.AddMember(L"provider", WideValue(entry.log.provider, pool), pool);
      object.AddMember(L"caller", WideValue(entry.log.caller, pool), pool);
      object.AddMember(L"message", WideValue(entry.log.message, pool), pool);
      object.AddMember(L"thread", entry.thread, pool);
      break;
    default:
      object.AddMember(L"text", WideValue(entry.text, pool), pool);
  }
  return object;
}

// The entries of one step, or all of them for step 0.
WideValue EntriesJson(const std::vector<RecordEntry>& entries, std::size_t step,
                      Json::WidePool& pool) {
  WideValue list(rapidjson::kArrayType);
  for (const RecordEntry& entry : entries) {
    if (step == 0 || entry.step == step) list.PushBack(EntryJson(entry, pool), pool);
  }
  return list;
}

std::vector<std::wstring> FailuresOf(const PlayedScenario& played, std::size_t step) {
  std::vector<std::wstring> failures;
  for (const RecordEntry& entry : played.entries) {
    if (entry.step == step && entry.what == Happening::Failure) failures.push_back(entry.text);
  }
  return failures;
}

// XML has no form at all for most control characters and for U+FFFE and U+FFFF.
std::string Xml(const std::string& text) {
  std::wstring clean = Wide(Printable(text, LineBreaks::Keep));
  std::replace_if(
      clean.begin(), clean.end(), [](wchar_t unit) { return unit >= 0xFFFE; }, L'\xFFFD');
  return Markup(Utf8(clean));
}

std::string LogText(const PlayedScenario& played, std::size_t step) {
  std::string text;
  for (const RecordEntry& entry : played.entries) {
    if (entry.step != step) continue;
    if (entry.what == Happening::Log) {
      text += SecondsText(entry.at) + " " + Utf8(entry.log.level) + " " + Utf8(entry.log.message) +
              "\n";
    } else if (entry.what == Happening::Event) {
      text += SecondsText(entry.at) + " * " + Utf8(entry.text) + "\n";
    }
  }
  return text;
}

std::string Case(const PlayedScenario& played, const std::string& name, milliseconds length,
                 const std::string& inside) {
  return "    <testcase classname=\"" + Xml(played.file) + "\" name=\"" + Xml(name) + "\" time=\"" +
         SecondsText(length) + "\">" + inside + "</testcase>\n";
}

std::string Suite(const PlayedScenario& played) {
  std::string cases;
  std::size_t failed = 0;
  milliseconds length{};
  for (std::size_t i = 0; i < played.steps.size(); ++i) {
    const RecordStep& step = played.steps[i];
    const auto failures = FailuresOf(played, i + 1);
    std::string inside;
    for (const std::wstring& one : failures) {
      inside += "<failure message=\"" + Xml(Utf8(one)) + "\">line " + std::to_string(step.line) +
                "&#10;" + Xml(LogText(played, i + 1)) + "</failure>";
    }
    failed += failures.empty() ? 0 : 1;
    const std::string name =
        "step " + std::to_string(i + 1) + (step.say.empty() ? "" : ": " + Utf8(step.say));
    cases += Case(played, name, step.end - step.begin, inside);
    length = std::max(length, step.end);
  }
  const std::size_t errors = played.error.empty() ? 0 : 1;
  if (errors != 0) {
    cases += Case(played, "plays", {}, "<error message=\"" + Xml(played.error) + "\"/>");
  }
  return "  <testsuite name=\"" + Xml(played.file) + "\" tests=\"" +
         std::to_string(played.steps.size() + errors) + "\" failures=\"" + std::to_string(failed) +
         "\" errors=\"" + std::to_string(errors) + "\" time=\"" + SecondsText(length) + "\">\n" +
         cases + "  </testsuite>\n";
}

}  // namespace

Json::WideDocument CommandJson(std::uint32_t id, const CommandResult& answer) {
  Json::WideDocument result(rapidjson::kObjectType);
  AddCommandMembers(result, id, answer, result.GetAllocator());
  return result;
}

Json::WideDocument ScenarioJson(const PlayedScenario& played) {
  Json::WideDocument result(rapidjson::kObjectType);
  auto& pool = result.GetAllocator();
  WideValue steps(rapidjson::kArrayType);
  milliseconds length{};
  for (std::size_t i = 0; i < played.steps.size(); ++i) {
    const RecordStep& step = played.steps[i];
    WideValue object(rapidjson::kObjectType);
    object.AddMember(L"step", static_cast<std::uint64_t>(i + 1), pool);
    object.AddMember(L"line", static_cast<std::uint64_t>(step.line), pool);
    object.AddMember(L"say", WideValue(step.say, pool), pool);
    object.AddMember(L"met", FailuresOf(played, i + 1).empty(), pool);
    object.AddMember(L"entries", EntriesJson(played.entries, i + 1, pool), pool);
    steps.PushBack(object, pool);
    length = std::max(length, step.end);
  }
  result.AddMember(L"scenario", WideValue(Wide(played.file), pool), pool);
  result.AddMember(L"met", played.met, pool);
  result.AddMember(L"seconds", Seconds(length), pool);
  result.AddMember(L"steps", steps, pool);
  return result;
}

Json::WideDocument EventsJson(const std::vector<RecordEntry>& entries) {
  Json::WideDocument result(rapidjson::kObjectType);
  result.AddMember(L"entries", EntriesJson(entries, 0, result.GetAllocator()),
                   result.GetAllocator());
  return result;
}

std::string JUnitReport(const std::vector<PlayedScenario>& played) {
  std::string report = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites>\n";
  for (const PlayedScenario& one : played) report += Suite(one);
  return report + "</testsuites>\n";
}

}  // namespace Vx::Host
