#include "vxhost/log/history.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <cwchar>
#include <iterator>

#include <windows.h>

#include "events/subscription_forms.h"
#include "hosting/text.h"
#include "json/json_text.h"

namespace Vx::Hosting::Tool {

namespace {

using namespace Tessel::Server::Records;

constexpr std::wstring_view kModuleStarted = L"the module is started: ";
constexpr std::wstring_view kModuleStopped = L"the module is stopped";
constexpr std::wstring_view kServiceFailed = L"the service cannot run: ";
constexpr std::wstring_view kPowerForwarded = L"power event ";
constexpr wchar_t kCutOff[] = L"its service ended before it did";
constexpr wchar_t kCrashed[] = L"nothing asked it to stop";

constexpr struct {
  std::wstring_view text;
  const wchar_t* decision;
  bool failed;
} kHostEvents[] = {{kModuleStarted, L"started", false},
                   {kModuleStopped, L"stopped", false},
                   {kServiceFailed, L"not started", true}};

constexpr std::int64_t kEpoch = 11'644'473'600'000;  // 1970, in milliseconds since 1601

std::wstring TextOfMoment(std::int64_t moment) {
  return DateTimeText(static_cast<std::uint64_t>(moment + kEpoch) * 10'000);
}

// Converts between UTC and local time, by the daylight-saving rule of that day. If Windows cannot
// convert the moment, returns it unchanged.
std::int64_t Converted(std::int64_t moment, BOOL(WINAPI* convert)(const TIME_ZONE_INFORMATION*,
                                                                  const SYSTEMTIME*, SYSTEMTIME*)) {
  auto file = std::bit_cast<FILETIME>((moment + kEpoch) * 10'000);
  SYSTEMTIME from{};
  SYSTEMTIME to{};
  if (FileTimeToSystemTime(&file, &from) == FALSE || convert(nullptr, &from, &to) == FALSE ||
      SystemTimeToFileTime(&to, &file) == FALSE) {
    return moment;
  }
  return std::bit_cast<std::int64_t>(file) / 10'000 - kEpoch;
}

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
    record.*member.text = TextMember(object, member.name);
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

// Returns the fault that a line reports for the request of `command`, such as "launched is
// missing". Returns an empty string if the line is not about that command.
std::wstring FaultIn(const std::wstring& complaint, std::uint32_t command) {
  const std::wstring id = L" - function id " + std::to_wstring(command) + L": ";
  const std::size_t at = complaint.find(id);
  if (at == complaint.npos) return {};
  const std::wstring fault = complaint.substr(at + id.size());
  return fault.substr(0, fault.rfind(L" (result "));
}

std::wstring Seconds(std::uint64_t milliseconds) {
  return std::to_wstring(milliseconds / 1000) + L" s";
}

std::wstring DetailOf(const DecisionRecord& record, const KnownRecord& known,
                      const std::wstring& complaint, std::uint64_t planned) {
  const bool elsewhere = record.reason == NameOf(Reason::EarlierLines).word && !complaint.empty();
  std::wstring detail = elsewhere ? complaint : known.why;
  const auto add = [&detail](const std::wstring& text) {
    if (!text.empty()) detail += (detail.empty() ? L"" : L", ") + text;
  };
  if (!elsewhere && known.kind == Kind::Command) add(FaultIn(complaint, record.number));
  if (record.process != 0) add(L"process " + std::to_wstring(record.process));
  if (!record.client.empty()) add(L"client " + record.client);
  if (known.decision == Decision::Waiting) add(L"for up to " + Seconds(planned));
  if (known.decision == Decision::Dropped && planned != 0)
    add(L"planned after " + Seconds(planned));
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
  const auto since =
      sys_days(day) + hours(part[3]) + minutes(part[4]) + seconds(part[5]) + milliseconds(part[6]);
  const auto moment = duration_cast<milliseconds>(since.time_since_epoch()).count();
  if (time.ends_with(L'Z')) return moment;
  int zone[2] = {};
  const std::size_t sign = time.find_first_of(L"+-", time.find(L'T'));
  if (sign == time.npos || std::swscanf(&time[sign + 1], L"%2d:%2d", &zone[0], &zone[1]) != 2) {
    return Converted(moment, &TzSpecificLocalTimeToSystemTime);
  }
  const std::int64_t offset = (zone[0] * 60LL + zone[1]) * 60'000;
  return time[sign] == L'+' ? moment - offset : moment + offset;
}

std::wstring TimeText(std::int64_t moment, Zone zone) {
  if (zone == Zone::Utc) return TextOfMoment(moment) + L"Z";
  const std::int64_t local = Converted(moment, &SystemTimeToTzSpecificLocalTime);
  const auto offset = static_cast<int>((local - moment) / 60'000);
  wchar_t text[16];
  static_cast<void>(std::swprintf(text, std::size(text), L"%02d:%02d", std::abs(offset) / 60,
                                  std::abs(offset) % 60));
  return TextOfMoment(local) + (offset < 0 ? L"-" : L"+") + text;
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

std::optional<std::uint32_t> PowerCodeIn(const LogLine& line) {
  if (line.provider != kHostProvider || !line.message.starts_with(kPowerForwarded)) return {};
  return static_cast<std::uint32_t>(
      std::wcstoul(line.message.c_str() + kPowerForwarded.size(), nullptr, 10));
}

std::wstring ProgramOf(const std::wstring& target) {
  return target.substr(target.rfind(L'\\') + 1);  // npos + 1 is 0
}

// A service's next start shows that its previous process has ended. A process logs its first lines
// before the one that reports the start of the module.
void History::FollowService(const HistoryLine& line, std::int64_t moment) {
  const std::uint32_t process = line.line.process;
  Run& run = runs.try_emplace(line.service, Run{process, moment}).first->second;
  if (StartsModule(line.line)) {
    EndProcess(process);  // an earlier one with the same id
    if (run.started || run.process != process) {
      EndProcess(run.process);
      outages.push_back({run.last, moment});
      if (!run.stopped) {
        HistoryRow& row = AddRow({TimeText(run.last, Zone::Utc), run.last, L"service", L"ended"});
        row.detail = kCrashed;
        row.failed = true;
      }
    }
    run = {process, moment, true};
  }
  if (run.stopped || run.process != process) return;
  run.last = moment;
  run.stopped = EndsModule(line.line) || line.line.message.starts_with(kServiceFailed);
}

void History::AddHostLine(const HistoryLine& line, std::optional<std::int64_t> moment) {
  using Tessel::Server::Services::Orvane::kPowerCodes;
  const std::wstring& message = line.line.message;
  HistoryRow row{.time = line.time, .moment = moment, .event = L"service"};
  for (const auto& one : kHostEvents) {
    if (!message.starts_with(one.text)) continue;
    row.decision = one.decision;
    row.detail = message.substr(one.text.size());
    row.failed = one.failed;
  }
  if (const auto code = PowerCodeIn(line.line)) {
    row.event = NameOf(Kind::Power).text + (L" " + std::to_wstring(*code));
    row.decision = kReceived;
    if (const wchar_t* meaning = MeaningOf(kPowerCodes, *code)) row.detail = meaning;
  }
  if (!row.decision.empty()) AddRow(std::move(row));
}

HistoryRow& History::AddRow(HistoryRow row) {
  changes.insert(rows.size());
  return rows.emplace_back(std::move(row));
}

void History::Add(const HistoryLine& line) {
  const auto moment = MomentOf(line.time);
  if (moment) FollowService(line, *moment);
  if (EndsModule(line.line)) CutOff(line.line.process);
  if (line.line.provider == kHostProvider) AddHostLine(line, moment);
  std::wstring& complaint = complaints[{line.line.process, line.thread}];
  if (!line.line.record) {
    if (line.line.level != L"INFO") complaint = line.line.message;
    return;
  }
  const std::wstring complained = std::exchange(complaint, {});
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
  if (begun) changes.insert(waiting->second);
  HistoryRow& row = begun ? rows[waiting->second]
                          : AddRow({.time = line.time, .moment = moment, .event = known->event});
  if (begun) open.erase(waiting);
  row.subscription = record.subscription;
  row.target = record.target;
  row.decision = NameOf(known->decision).text;
  row.failed = IsFailure(known->decision);
  if (known->decision == Decision::Waiting) row.planned = record.milliseconds;
  row.detail = DetailOf(record, *known, complained, row.planned);
  row.startedProcess = record.process;
  const bool isDelivery = record.delivery != 0;
  row.unreadable = isDelivery && record.reason == NameOf(Reason::Unreadable).word ? 1 : 0;
  row.isDelivery = isDelivery && row.unreadable == 0;
  if (known->decision == Decision::Waiting) {
    open[delivery] = rows.size() - 1;
  } else {
    row.milliseconds = static_cast<std::int64_t>(record.milliseconds);
  }
}

void History::CutOff(std::uint32_t process) {
  for (const auto& [delivery, index] : open) {
    if (delivery.first != process || rows[index].failed) continue;
    changes.insert(index);
    HistoryRow& row = rows[index];
    row.decision = NameOf(Decision::Dropped).text;
    row.detail = kCutOff;
    row.failed = true;
  }
}

void History::EndProcess(std::uint32_t process) {
  CutOff(process);
  std::erase_if(open, [&](const auto& one) { return one.first.first == process; });
}

std::vector<HistoryRow> History::Finish(const Period& within, std::int64_t now) {
  constexpr std::int64_t kLate = 60'000;  // tolerance for a delivery in progress
  for (const auto& [delivery, at] : open) {
    HistoryRow& row = rows[at];
    const std::int64_t since = now - row.moment.value_or(now) - kLate;
    if (!row.failed && since > 0 && static_cast<std::uint64_t>(since) > row.planned) {
      row.detail += L", which have passed: the log does not show its end";
    }
  }
  std::erase_if(rows, [&](const HistoryRow& row) { return !within.Includes(row.moment); });
  std::ranges::stable_sort(rows, {}, &HistoryRow::moment);
  std::map<std::wstring, HistoryRow*> unreadable;
  for (HistoryRow& row : rows) {
    if (row.unreadable == 0) continue;
    HistoryRow& first = *unreadable.try_emplace(row.subscription, &row).first->second;
    if (&first == &row) continue;
    row.unreadable = 0;
    row.decision.clear();
    first.detail = row.detail + L", at " + std::to_wstring(++first.unreadable) + L" events";
  }
  std::erase_if(rows, [](const HistoryRow& row) { return row.decision.empty(); });
  return std::move(rows);
}

std::vector<HistoryRow> History::TakeChanges() {
  std::vector<HistoryRow> changed;
  for (const std::size_t at : changes) changed.push_back(rows[at]);
  changes.clear();
  return changed;
}

std::vector<Period> History::Outages(const Period& within) const {
  constexpr std::int64_t kRestart = 1000;  // a plain restart takes less
  constexpr std::ptrdiff_t kMost = 3;
  std::vector<Period> all = outages;
  // A service that was renamed or removed stays stopped, while another may run.
  Period now{0, within.end};
  for (const auto& [service, run] : runs) {
    now.begin = std::max(now.begin, run.stopped ? run.last : within.end);
  }
  if (!runs.empty()) all.push_back(now);
  for (Period& one : all) one = {std::max(one.begin, within.begin), std::min(one.end, within.end)};
  std::erase_if(all, [](const Period& one) { return one.end - one.begin < kRestart; });
  std::ranges::sort(all, {}, &Period::begin);
  if (std::ssize(all) > kMost) all.erase(all.begin(), all.end() - kMost);
  return all;
}

}  // namespace Vx::Hosting::Tool
