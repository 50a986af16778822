#include "servicehost/event_log.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string_view>

#include <windows.h>

#include "platform/clock.h"
#include "platform/machine.h"
#include "platform/shown_text.h"

namespace Vx::Hosting::ServiceHost {

namespace {

constexpr wchar_t kSources[] = L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\";

// Message IDs from host_messages.mc, including the severity bits.
constexpr std::uint32_t kWarningMessage = 0x80000001;
constexpr std::uint32_t kErrorMessage = 0xC0000002;

constexpr wchar_t kTooMany[] =
    L"too many events: those of the next minute are only in the service's log files";

constexpr std::uint64_t kWindow = 60'000;  // milliseconds
constexpr int kMostPerWindow = 30;

constexpr wchar_t kNotRun[] = L" delivery did not run: ";
constexpr wchar_t kReason[] = L", reason ";
constexpr wchar_t kSubscription[] = L", subscription ";
constexpr wchar_t kTarget[] = L", target ";
constexpr wchar_t kFullWidthPercent = 0xFF05;

constexpr std::wstring_view kDeliveries[] = {L"power", L"platform", L"uninstall"};
constexpr std::wstring_view kNotRunDecisions[] = {L"dropped",     L"refused",  L"failed",
                                                  L"not_started", L"not_sent", L"not_raised"};

bool SaysThatNothingRan(const DecisionRecord& record) {
  return std::ranges::find(kDeliveries, record.kind) != std::end(kDeliveries) &&
         std::ranges::find(kNotRunDecisions, record.decision) != std::end(kNotRunDecisions);
}

std::wstring TextOf(const DecisionRecord& record) {
  std::wstring text = record.kind + kNotRun + record.decision;
  const auto add = [&text](const wchar_t* what, const std::wstring& value) {
    if (!value.empty()) (text += what) += value;
  };
  add(kReason, record.reason);
  add(kSubscription, record.subscription);
  add(kTarget, record.target);
  return text;
}

// Event Viewer also expands "%1" and "%{" in a string, and they cannot be escaped:
// https://learn.microsoft.com/openspecs/windows_protocols/ms-even/d76e867d-96dc-4c09-b747-b1dde1acc5a4
std::wstring Insertable(std::wstring text) {
  std::ranges::transform(text, text.begin(), &Platform::ShownAs);
  std::ranges::replace(text, L'%', kFullWidthPercent);
  return text;
}

}  // namespace

EventReport OpenEventLog(const std::wstring& source) {
  const std::shared_ptr<void> log(RegisterEventSourceW(nullptr, source.c_str()),
                                  &DeregisterEventSource);
  return [log](std::uint16_t type, std::uint32_t id, const EventTexts& texts) {
    const wchar_t* strings[std::tuple_size_v<EventTexts>];
    std::ranges::transform(texts, strings, &std::wstring::c_str);
    ReportEventW(log.get(), type, 0, id, nullptr, static_cast<WORD>(texts.size()), 0, strings,
                 nullptr);
  };
}

LogTarget EventLogTarget(EventReport report) {
  // Up to `room` more events may be reported before the tick count reaches `windowEnd`.
  return [report = std::move(report), room = 0,
          windowEnd = std::uint64_t{0}](const LogEntry& entry) mutable {
    const LogLine& line = entry.line;
    const bool lost = line.record && SaysThatNothingRan(*line.record);
    if (!lost && (line.provider != kHostProvider || line.level == L"INFO")) return;
    const std::uint64_t now = Platform::CurrentMachine().clock->TickCount();
    if (now >= windowEnd) {
      windowEnd = now + kWindow;
      room = kMostPerWindow;
    }
    if (room <= 0) return;
    if (--room == 0) {
      windowEnd = now + kWindow;
      report(EVENTLOG_WARNING_TYPE, kWarningMessage, {kTooMany, kHostProvider});
      return;
    }
    const bool error = !lost && line.level == L"ERROR";
    report(error ? EVENTLOG_ERROR_TYPE : EVENTLOG_WARNING_TYPE,
           error ? kErrorMessage : kWarningMessage,
           {Insertable(lost ? TextOf(*line.record) : line.message), line.provider,
            Insertable(line.caller), std::to_wstring(entry.thread)});
  };
}

void AddEventSource(const std::wstring& name, const std::wstring& program) {
  const std::wstring key = kSources + name;
  const DWORD types = EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE;
  const auto bytes = static_cast<DWORD>((program.size() + 1) * sizeof(wchar_t));
  LSTATUS error = RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"EventMessageFile", REG_SZ,
                                  program.c_str(), bytes);
  if (error == ERROR_SUCCESS) {
    error = RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"TypesSupported", REG_DWORD, &types,
                            sizeof types);
  }
  if (error != ERROR_SUCCESS) {
    throw std::runtime_error("cannot register the source of the event log (error " +
                             std::to_string(error) + "); run as administrator");
  }
}

void RemoveEventSource(const std::wstring& name) noexcept {
  RegDeleteKeyW(HKEY_LOCAL_MACHINE, (kSources + name).c_str());
}

}  // namespace Vx::Hosting::ServiceHost
