#include "vxhost/log/history.h"

#include <chrono>
#include <cwchar>
#include <limits>

#include "hosting/text.h"
#include "json/json_text.h"

namespace Vx::Hosting::Tool {

namespace {

using namespace Tessel::Server::Records;

constexpr std::wstring_view kModuleStarted = L"the module is started: ";
constexpr std::wstring_view kModuleStopped = L"the module is stopped";
constexpr wchar_t kCutOff[] = L"its service ended before it did";

std::wstring TextMember(const Json::WideValue& object, const std::wstring& key) {
  const Json::WideValue* member = FindMember(object, key);
  return member == nullptr || !member->IsString() ? L"" : TextOf(*member);
}

template <typename Number>
void ReadNumber(const Json::WideValue& object, const wchar_t* key, Number& number) {
  const Json::WideValue* member = FindMember(object, key);
  if (member == nullptr || !member->IsUint64()) return;
  const std::uint64_t value = member->GetUint64();
  if (value <= std::numeric_limits<Number>::max()) number = static_cast<Number>(value);
}

DecisionRecord ParseRecord(const Json::WideValue& object) {
  DecisionRecord record;
  for (const auto& member : kRecordTexts) {
    record.*member.text = TextMember(object, Wide(member.name));
  }
  ReadNumber(object, L"number", record.number);
  ReadNumber(object, L"status", record.status);
  ReadNumber(object, L"process", record.process);
  ReadNumber(object, L"delivery", record.delivery);
  ReadNumber(object, L"milliseconds", record.milliseconds);
  return record;
}

std::wstring WhyOf(const DecisionRecord& record) {
  const auto reason = FromWord<Reason>(record.reason);
  std::wstring why = reason ? NameOf(*reason).text : record.reason;
  if (record.status != 0) {
    why += (why.empty() ? L"status " : L", status ") + Wide(CodeText(record.status));
  }
  return why;
}

std::wstring DetailOf(const DecisionRecord& record, const KnownRecord& known) {
  std::wstring detail = known.why;
  const auto add = [&detail](const std::wstring& text) {
    detail += (detail.empty() ? L"" : L", ") + text;
  };
  if (record.process != 0) add(L"process " + std::to_wstring(record.process));
  if (!record.client.empty()) add(L"client " + record.client);
  if (known.decision == Decision::Waiting) {
    add(L"for up to " + std::to_wstring(record.milliseconds / 1000) + L" s");
  }
  return detail;
}

}  // namespace

std::optional<HistoryLine> ParseHistoryLine(const std::string& text) {
  Json::WideDocument line;
  if (!Json::ParseJson(line, Wide(text)) || !line.IsObject()) return std::nullopt;
  HistoryLine result{.time = TextMember(line, L"time")};
  ReadNumber(line, L"thread", result.thread);
  ReadNumber(line, L"process", result.line.process);
  result.line.level = TextMember(line, L"level");
  result.line.provider = TextMember(line, L"provider");
  result.line.caller = TextMember(line, L"caller");
  result.line.message = TextMember(line, L"message");
  const Json::WideValue* const record = FindMember(line, L"record");
  if (record != nullptr && record->IsObject()) result.line.record = ParseRecord(*record);
  if (result.time.empty() || result.line.message.empty()) return std::nullopt;
  return result;
}

std::optional<std::int64_t> MomentOf(const std::wstring& time) {
  using namespace std::chrono;  // NOLINT(google-build-using-namespace)
  int part[7] = {};
  const int count = std::swscanf(time.c_str(), L"%4d-%2d-%2dT%2d:%2d:%2d.%3d", &part[0], &part[1],
                                 &part[2], &part[3], &part[4], &part[5], &part[6]);
  const auto day = year(part[0]) / part[1] / part[2];
  if (count < 3 || !day.ok()) return std::nullopt;
  const auto moment =
      sys_days(day) + hours(part[3]) + minutes(part[4]) + seconds(part[5]) + milliseconds(part[6]);
  return duration_cast<milliseconds>(moment.time_since_epoch()).count();
}

std::optional<KnownRecord> Understand(const DecisionRecord& record) {
  const auto kind = FromWord<Kind>(record.kind);
  const auto decision = FromWord<Decision>(record.decision);
  if (!kind || !decision) return std::nullopt;
  std::wstring event = NameOf(*kind).text;
  if (*kind == Kind::Uninstall || *kind == Kind::Completion) {
    if (!record.package.empty()) event += L" " + record.package;
  } else {
    event += L" " + std::to_wstring(record.number);
  }
  return KnownRecord{*kind, *decision, std::move(event), WhyOf(record)};
}

bool StartsModule(const LogLine& line) {
  return line.provider == kHostProvider && line.message.starts_with(kModuleStarted);
}

bool EndsModule(const LogLine& line) {
  return line.provider == kHostProvider && line.message == kModuleStopped;
}

void History::Add(const HistoryLine& line) {
  if (StartsModule(line.line)) CutOff([](const Delivery&) { return true; });
  if (EndsModule(line.line)) {
    CutOff([&](const Delivery& one) { return one.first == line.line.process; });
  }
  if (!line.line.record) return;
  ++records;
  const DecisionRecord& record = *line.line.record;
  const auto known = Understand(record);
  if (!known) {
    ++unknown;
    return;
  }
  const Delivery delivery(line.line.process, record.delivery);
  const auto waiting = record.delivery == 0 ? open.end() : open.find(delivery);
  const bool begun = waiting != open.end();
  if (!begun) rows.push_back({.time = line.time, .event = known->event});
  HistoryRow& row = begun ? rows[waiting->second] : rows.back();
  if (begun) open.erase(waiting);
  row.subscription = record.subscription;
  row.decision = known->decision;
  row.detail = DetailOf(record, *known);
  row.startedProcess = record.process;
  if (known->decision == Decision::Waiting) {
    open[delivery] = rows.size() - 1;
  } else {
    row.milliseconds = static_cast<std::int64_t>(record.milliseconds);
  }
}

template <typename Of>
void History::CutOff(const Of& of) {
  std::erase_if(open, [&](const auto& one) {
    if (!of(one.first)) return false;
    rows[one.second].decision = Decision::Dropped;
    rows[one.second].detail = kCutOff;
    return true;
  });
}

std::vector<HistoryRow> History::Finish() {
  return std::move(rows);
}

}  // namespace Vx::Hosting::Tool
