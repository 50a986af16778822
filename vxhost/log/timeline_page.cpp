#include "vxhost/log/timeline_page.h"

#include <cstddef>
#include <map>
#include <string_view>

#include "events/delivery_rules.h"
#include "events/subscription_delivery.h"
#include "events/subscription_forms.h"
#include "hosting/json_row.h"
#include "hosting/text.h"
#include "json/json_object.h"
#include "json/json_text.h"
#include "platform/windows_runtime_error.h"
#include "records/record.h"
#include "service/dispatch.h"
#include "vxhost/common/console.h"
#include "vxhost/log/history.h"
#include "vxhost/log/timeline_template.h"

namespace Vx::Hosting::Tool {

namespace {

using namespace Tessel::Server::Records;
using namespace Tessel::Server::Services::Orvane;

constexpr std::string_view kPlaceOfData = "{{data}}";

const wchar_t* WhatOf(const RecordEntry& entry) {
  if (StartsModule(entry.log)) return L"started";
  if (EndsModule(entry.log)) return L"ended";
  if (entry.log.provider == kHostProvider) return L"host";
  return Tool::NameOf(entry.what);
}

// Returns the page's CSS class for a decision.
const wchar_t* ToneOf(Decision decision) {
  if (decision == Decision::Dropped) return L"dropped";
  return IsFailure(decision) ? L"bad" : L"good";
}

std::wstring Shown(const std::wstring& text) {
  return Wide(Printable(Utf8(text), LineBreaks::Replace));
}

// Adds the member unless its text is empty.
void Add(JsonRow& row, const wchar_t* name, const std::wstring& text) {
  if (!text.empty()) row.Add({name, Shown(text)});
}

JsonRow RowOf(const KnownRecord& known, const DecisionRecord& record, std::uint32_t writer) {
  JsonRow row{{L"kind", NameOf(known.kind).word},
              {L"event", Shown(known.event)},
              {L"decision", NameOf(known.decision).text},
              {L"tone", ToneOf(known.decision)}};
  Add(row, L"why", known.why);
  Add(row, L"subscription", record.subscription);
  Add(row, L"target", record.target);
  Add(row, L"client", record.client);
  row.Add({L"process", record.process});
  row.Add({L"milliseconds", record.milliseconds});
  if (record.delivery != 0) {
    row.Add({L"delivery", std::to_wstring(writer) + L"." + std::to_wstring(record.delivery)});
  }
  return row;
}

// Returns the subscription in a client's request as JSON, or "null" if it contains no readable one.
std::wstring SubscriptionJson(const std::wstring& text) {
  try {
    const auto request = Json::JsonObject::Parse(text);
    for (const SubscriptionForm* form : kSubscriptionForms) {
      if (!request.HasKey(form->event)) continue;
      const EventSubscription read(text, *form);
      const int delay = LeadingInteger(read.Command()->DelayDeliverySec()).value_or(0);
      JsonRow row{{L"subscription", SubscriptionHash(text)},
                  {L"event", Shown(form->family != nullptr
                                       ? NameOf(Kind::Uninstall).text + (L" " + read.Family())
                                       : Wide(form->name) + L" " + std::to_wstring(read.Type()))}};
      Add(row, L"target", read.Command()->Target().substr(0, kLongestClientText));
      row.Add({L"milliseconds", DelayLength(delay).count()});
      return row.Text();
    }
  } catch (const Platform::WindowsRuntimeError&) {  // NOLINT(bugprone-empty-catch): see below
  }
  return L"null";  // not a request of this kind
}

// Maps each text to its number, because a log repeats a few messages thousands of times.
using Numbers = std::map<std::wstring, std::size_t>;

std::wstring EntryJson(const RecordEntry& entry, Numbers& numbers) {
  const std::wstring& text = entry.what == Happening::Log ? entry.log.message : entry.text;
  JsonRow row{{L"at", entry.at.count()},
              {L"step", entry.step},
              {L"what", WhatOf(entry)},
              {L"text", numbers.try_emplace(text, numbers.size()).first->second},
              {L"thread", entry.thread}};
  Add(row, L"level", entry.log.level);
  Add(row, L"caller", entry.log.caller);
  if (entry.what == Happening::Command) {
    const wchar_t* name = CommandName(entry.command);
    row.Add({L"command", entry.command});
    Add(row, L"name", name == nullptr ? L"" : name);
    row.Add({L"done", entry.answer.code == 0});
    Add(row, L"result",
        Wide(Describe(entry.answer.code)) + (entry.answer.text ? L" " + *entry.answer.text : L""));
    Add(row, L"request", entry.request);
    row.AddJson(L"names", SubscriptionJson(entry.request));
  }
  const auto known = entry.log.record ? Understand(*entry.log.record) : std::nullopt;
  if (known) row.Add({L"record", RowOf(*known, *entry.log.record, entry.log.process)});
  return row.Text();
}

// Adds a list with one value per line, so that the data is readable without scripts.
void AddList(JsonRow& row, const wchar_t* name, const auto& values, const auto& toJson) {
  std::wstring list;
  for (const auto& value : values) (list += list.empty() ? L"\n" : L"\n,") += toJson(value);
  row.AddJson(name, L'[' + list + L']');
}

}  // namespace

std::string TimelinePage(const PageHead& head, const std::vector<RecordStep>& steps,
                         const std::vector<RecordEntry>& entries,
                         const std::vector<std::wstring>& stored) {
  JsonRow codes{};
  for (const EventCode& one : kPowerCodes) {
    codes.Add({std::to_wstring(one.code).c_str(), one.meaning});
  }
  JsonRow data{{L"title", Shown(head.title)},
               {L"verdict", Shown(head.verdict)},
               {L"met", head.met},
               {L"end", steps.empty() ? 0 : steps.back().end.count()},
               {L"powerCodes", codes}};
  if (head.begin) data.Add({L"begin", *head.begin});
  const auto shown = [](const std::wstring& text) { return Quoted(Shown(text)); };
  AddList(data, L"stored", stored, &SubscriptionJson);
  AddList(data, L"steps", steps, [&](const RecordStep& step) { return shown(step.say); });
  Numbers numbers;
  AddList(data, L"entries", entries,
          [&](const RecordEntry& entry) { return EntryJson(entry, numbers); });
  std::vector<std::wstring> texts(numbers.size());
  for (const auto& [text, number] : numbers) texts[number] = text;
  AddList(data, L"texts", texts, shown);
  // Without '<', no string can end the script element or start a comment in it.
  std::string json;
  for (const char unit : Utf8(data.Text())) {
    json += unit == '<' ? std::string_view("\\u003c") : std::string_view(&unit, 1);
  }
  std::string page = kTimelineTemplate;
  return page.replace(page.find(kPlaceOfData), kPlaceOfData.size(), json);
}

}  // namespace Vx::Hosting::Tool
