#include "vxhost/log/play_record.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <string_view>

#include <windows.h>

#include "hosting/text.h"
#include "vxhost/common/console.h"

namespace Vx::Hosting::Tool {

namespace {

// Returns `text` escaped for XML elements and attributes. Removes carriage returns.
std::string Markup(std::string_view text) {
  static constexpr struct {
    char unit;
    std::string_view markup;
  } kMarkup[] = {{'&', "&amp;"},  {'<', "&lt;"},   {'>', "&gt;"}, {'"', "&quot;"},
                 {'\'', "&#39;"}, {'\n', "&#10;"}, {'\r', ""}};
  std::string escaped;
  for (const char unit : text) {
    const auto* special =
        std::ranges::find(kMarkup, unit, [](const auto& row) { return row.unit; });
    escaped += special == std::end(kMarkup) ? std::string_view(&unit, 1) : special->markup;
  }
  return escaped;
}

using std::chrono::milliseconds;

double Seconds(milliseconds length) {
  return std::chrono::duration<double>(length).count();
}

std::string SecondsText(milliseconds length) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f", Seconds(length));
  return text;
}

milliseconds LengthOf(const PlayedScenario& played) {
  return played.steps.empty() ? milliseconds() : played.steps.back().end;
}

void AddCommandMembers(JsonRow& row, std::uint32_t id, const CommandResult& answer) {
  Json::WideDocument value;  // null if there is no answer
  if (answer.text && !Json::ParseJson(value, *answer.text)) {
    value.SetString(*answer.text, value.GetAllocator());
  }
  row.Add({L"id", id});
  row.Add({L"code", CodeText(answer.code)});
  row.Add({L"meaning", MeaningOf(answer.code)});
  row.Add({L"answer", value});
}

JsonRow EntryJson(const RecordEntry& entry) {
  JsonRow row{{L"kind", NameOf(entry.what)}, {L"seconds", Seconds(entry.at)}};
  if (entry.what == Happening::Command) {
    row.Add({L"request", entry.request});
    AddCommandMembers(row, entry.command, entry.answer);
  } else if (entry.what == Happening::Log) {
    row.Add({L"level", entry.log.level});
    row.Add({L"provider", entry.log.provider});
    row.Add({L"caller", entry.log.caller});
    row.Add({L"message", entry.log.message});
    row.Add({L"thread", entry.thread});
  } else {
    row.Add({L"text", entry.text});
  }
  return row;
}

std::vector<std::wstring> FailuresOf(const PlayedScenario& played, std::size_t step) {
  std::vector<std::wstring> failures;
  for (const RecordEntry& entry : played.entries) {
    if (entry.step == step && entry.what == Happening::Failure) failures.push_back(entry.text);
  }
  return failures;
}

// XML cannot represent most control characters, nor U+FFFE and U+FFFF.
std::string Xml(const std::string& text) {
  std::wstring clean = Wide(Printable(text, LineBreaks::Keep));
  std::ranges::replace_if(
      clean, [](wchar_t unit) { return unit >= 0xFFFE; }, L'\xFFFD');
  return Markup(Utf8(clean));
}

std::string LogText(const PlayedScenario& played, std::size_t step) {
  std::string text;
  for (const RecordEntry& entry : played.entries) {
    const bool isLog = entry.what == Happening::Log;
    if (entry.step != step || (!isLog && entry.what != Happening::Event)) continue;
    text += SecondsText(entry.at) + " " +
            Utf8(isLog ? entry.log.level + L" " + entry.log.message : L"* " + entry.text) + "\n";
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
  }
  const std::size_t errors = played.error.empty() ? 0 : 1;
  if (errors != 0) {
    cases += Case(played, "plays", {}, "<error message=\"" + Xml(played.error) + "\"/>");
  }
  return "  <testsuite name=\"" + Xml(played.file) + "\" tests=\"" +
         std::to_string(played.steps.size() + errors) + "\" failures=\"" + std::to_string(failed) +
         "\" errors=\"" + std::to_string(errors) + "\" time=\"" + SecondsText(LengthOf(played)) +
         "\">\n" + cases + "  </testsuite>\n";
}

}  // namespace

const wchar_t* NameOf(Happening what) {
  // In the order of the enumeration.
  static constexpr const wchar_t* kNames[] = {L"call", L"command", L"event", L"log", L"failure"};
  return kNames[static_cast<std::size_t>(what)];
}

void PlayRecord::BeginStep(std::size_t line, const std::wstring& say) {
  const auto moment = now();
  const std::lock_guard guard(mutex);
  steps.push_back({.line = line, .say = say, .begin = moment, .end = moment});
}

void PlayRecord::EndStep() {
  const auto moment = now();
  const std::lock_guard guard(mutex);
  if (!steps.empty()) steps.back().end = moment;
}

void PlayRecord::Add(RecordEntry entry) {
  entry.at = now();
  const bool hasThread = entry.what == Happening::Event || entry.what == Happening::Log;
  if (hasThread) entry.thread = GetCurrentThreadId();
  const std::lock_guard guard(mutex);
  entry.step = steps.size();
  entries.push_back(std::move(entry));
}

bool PlayRecord::Contains(Happening what, const std::wstring& text) const {
  const std::lock_guard guard(mutex);
  return std::ranges::any_of(entries, [&](const RecordEntry& entry) {
    const std::wstring& said = what == Happening::Log ? entry.log.message : entry.text;
    return entry.step == steps.size() && entry.what == what && said.find(text) != said.npos;
  });
}

std::vector<RecordStep> PlayRecord::Steps() const {
  const std::lock_guard guard(mutex);
  return steps;
}

std::vector<RecordEntry> PlayRecord::Entries() const {
  const std::lock_guard guard(mutex);
  return entries;
}

JsonRow CommandJson(std::uint32_t id, const CommandResult& answer) {
  JsonRow row{};
  AddCommandMembers(row, id, answer);
  row.Add({L"decision", answer.decision});
  row.Add({L"reason", answer.reason});
  return row;
}

std::vector<JsonRow> EntriesJson(const std::vector<RecordEntry>& entries, std::size_t step) {
  std::vector<JsonRow> list;
  for (const RecordEntry& entry : entries) {
    if (entry.step == step) list.push_back(EntryJson(entry));
  }
  return list;
}

JsonRow ScenarioJson(const PlayedScenario& played) {
  std::vector<JsonRow> steps;
  for (std::size_t i = 0; i < played.steps.size(); ++i) {
    const RecordStep& step = played.steps[i];
    steps.push_back({{L"step", i + 1},
                     {L"line", step.line},
                     {L"say", step.say},
                     {L"met", FailuresOf(played, i + 1).empty()},
                     {L"entries", EntriesJson(played.entries, i + 1)}});
  }
  return {{L"scenario", played.file},
          {L"met", played.met},
          {L"seconds", Seconds(LengthOf(played))},
          {L"steps", steps}};
}

std::string JUnitReport(const std::vector<PlayedScenario>& played) {
  std::string report = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites>\n";
  for (const PlayedScenario& one : played) report += Suite(one);
  return report + "</testsuites>\n";
}

}  // namespace Vx::Hosting::Tool
