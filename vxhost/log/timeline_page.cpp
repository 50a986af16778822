#include "vxhost/log/timeline_page.h"

#include <chrono>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string_view>
#include <type_traits>

#include "events/delivery_rules.h"
#include "events/subscription_delivery.h"
#include "events/subscription_forms.h"
#include "hosting/text.h"
#include "json/json_object.h"
#include "json/json_text.h"
#include "platform/windows_runtime_error.h"
#include "records/subscription_hash.h"
#include "service/dispatch.h"
#include "vxhost/common/console.h"
#include "vxhost/log/history.h"
#include "vxhost/log/timeline_template.h"

namespace Vx::Hosting::Tool {

namespace {

using namespace Tessel::Server::Records;
using namespace Tessel::Server::Services::Orvane;

constexpr std::string_view kPlaceOfData = "{{data}}";

// JSON for a script element. Without '<', no string can end the element or start a comment in it.
struct ScriptText {
  using Ch = wchar_t;
  void Put(wchar_t unit) {
    if (unit == L'<') {
      text += L"\\u003c";
    } else {
      text += unit;
    }
  }
  static void Flush() {}

  std::wstring text;
};

// In the order of the enumeration.
constexpr const wchar_t* kHappenings[] = {L"call", L"command", L"event", L"log", L"failure"};

const wchar_t* WhatOf(const RecordEntry& entry) {
  if (StartsModule(entry.log)) return L"started";
  if (EndsModule(entry.log)) return L"ended";
  if (entry.log.provider == kHostProvider) return L"host";
  return kHappenings[static_cast<std::size_t>(entry.what)];
}

// Returns a CSS class of the page.
const wchar_t* ToneOf(Decision decision) {
  if (decision == Decision::Dropped) return L"dropped";
  return IsFailure(decision) ? L"bad" : L"good";
}

// Writes the data for the page's scripts. Omits empty strings.
class DataWriter {
 public:
  std::string Write(const PageHead& head, const std::vector<RecordStep>& steps,
                    const std::vector<RecordEntry>& entries,
                    const std::vector<std::wstring>& stored) {
    json.StartObject();
    Member(L"title", head.title);
    Member(L"verdict", head.verdict);
    Member(L"met", head.met);
    if (head.begin) Member(L"begin", *head.begin);
    Member(L"end", steps.empty() ? 0 : steps.back().end.count());
    json.Key(L"powerCodes");
    json.StartObject();
    for (const EventCode& one : kPowerCodes) {
      Member(std::to_wstring(one.code).c_str(), one.meaning);
    }
    json.EndObject();
    List(L"stored", stored, [&](const std::wstring& text) { PutSubscription(text); });
    List(L"steps", steps, [&](const RecordStep& step) { Put(step.say); });
    List(L"entries", entries, [&](const RecordEntry& entry) { Put(entry); });
    List(L"texts", texts, [&](const std::wstring* text) { Put(*text); });
    json.EndObject();
    return Utf8(out.text);
  }

 private:
  void Put(const std::wstring& text) {
    json.String(Wide(Printable(Utf8(text), LineBreaks::Replace)));
  }
  void Member(const wchar_t* name, const std::wstring& text) {
    if (text.empty()) return;
    json.Key(name);
    Put(text);
  }
  void Member(const wchar_t* name, std::integral auto number) {
    json.Key(name);
    if constexpr (std::is_same_v<decltype(number), bool>) {
      json.Bool(number);
    } else {
      json.Int64(static_cast<std::int64_t>(number));
    }
  }
  // One value per line, so that the data is readable without scripts.
  void List(const wchar_t* name, const auto& values, const auto& put) {
    json.Key(name);
    json.StartArray();
    for (const auto& value : values) {
      out.Put(L'\n');
      put(value);
    }
    json.EndArray();
  }

  // Writes each text once, because a log repeats a few messages thousands of times.
  void Put(const RecordEntry& entry) {
    const std::wstring& text = entry.what == Happening::Log ? entry.log.message : entry.text;
    const auto [known, isNew] = numbers.try_emplace(text, texts.size());
    if (isNew) texts.push_back(&known->first);
    json.StartObject();
    Member(L"at", entry.at.count());
    Member(L"step", entry.step);
    Member(L"what", WhatOf(entry));
    Member(L"text", known->second);
    Member(L"thread", entry.thread);
    Member(L"level", entry.log.level);
    Member(L"caller", entry.log.caller);
    if (entry.what == Happening::Command) {
      const wchar_t* name = CommandName(entry.command);
      Member(L"command", entry.command);
      Member(L"name", name == nullptr ? L"" : name);
      Member(L"done", entry.answer.code == 0);
      Member(L"result", Wide(Describe(entry.answer.code)) +
                            (entry.answer.text ? L" " + *entry.answer.text : L""));
      Member(L"request", entry.request);
      json.Key(L"names");
      PutSubscription(entry.request);
    }
    if (entry.log.record) PutRecord(*entry.log.record, entry.log.process);
    json.EndObject();
  }

  void PutRecord(const DecisionRecord& record, std::uint32_t writer) {
    const auto known = Understand(record);
    if (!known) return;
    json.Key(L"record");
    json.StartObject();
    Member(L"kind", NameOf(known->kind).word);
    Member(L"event", known->event);
    Member(L"decision", NameOf(known->decision).text);
    Member(L"tone", ToneOf(known->decision));
    Member(L"why", known->why);
    Member(L"subscription", record.subscription);
    Member(L"target", record.target);
    Member(L"client", record.client);
    Member(L"process", record.process);
    Member(L"milliseconds", record.milliseconds);
    if (record.delivery != 0) {
      Member(L"delivery", std::to_wstring(writer) + L"." + std::to_wstring(record.delivery));
    }
    json.EndObject();
  }

  // Writes the subscription in a client's request, or null if it never runs.
  void PutSubscription(const std::wstring& text) {
    try {
      const auto request = Json::JsonObject::Parse(text);
      for (const SubscriptionForm* form : kSubscriptionForms) {
        if (!request.HasKey(form->event)) continue;
        const EventSubscription read(text, *form);
        const int delay = LeadingInteger(read.Command()->DelayDeliverySec()).value_or(0);
        json.StartObject();
        Member(L"subscription", SubscriptionHash(text));
        Member(L"event", form->family != nullptr
                             ? NameOf(Kind::Uninstall).text + (L" " + read.Family())
                             : Wide(form->name) + L" " + std::to_wstring(read.Type()));
        Member(L"target", read.Command()->Target().substr(0, kLongestClientText));
        Member(L"milliseconds", DelayLength(delay).count());
        json.EndObject();
        return;
      }
    } catch (const Platform::WindowsRuntimeError&) {
      // Not a request of this kind.
    }
    json.Null();
  }

  ScriptText out;
  rapidjson::Writer<ScriptText, Json::WideEncoding, Json::WideEncoding, Json::ScratchMemory> json{
      out};
  std::map<std::wstring, std::size_t> numbers;  // text to its index
  std::vector<const std::wstring*> texts;
};

}  // namespace

std::string TimelinePage(const PageHead& head, const std::vector<RecordStep>& steps,
                         const std::vector<RecordEntry>& entries,
                         const std::vector<std::wstring>& stored) {
  std::string page = kTimelineTemplate;
  return page.replace(page.find(kPlaceOfData), kPlaceOfData.size(),
                      DataWriter().Write(head, steps, entries, stored));
}

}  // namespace Vx::Hosting::Tool
