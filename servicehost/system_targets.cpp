#include "servicehost/system_targets.h"

#include <algorithm>
#include <iterator>
#include <memory>

#include <windows.h>

#include <evntprov.h>

#include "platform/clock.h"
#include "platform/machine.h"
#include "platform/shown_text.h"

namespace Vx::Hosting::ServiceHost {

namespace {

using namespace std::string_view_literals;

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

// Derived from the provider's name in the standard way, so tools also accept "*Vx-Host-Service".
constexpr GUID kProvider = {
    0x1f3716e0, 0xc3cb, 0x5355, {0x7c, 0xd0, 0xdc, 0x57, 0x8e, 0xba, 0x4f, 0xdc}};

// The traits and the description each begin with their size as a 16-bit little-endian integer.
constexpr std::string_view kTraits = "\x12\0Vx-Host-Service\0"sv;
// No tags, the event's name, and each field's name with its type: 1 for a null-terminated UTF-16
// string and 8 for an unsigned 32-bit integer.
constexpr std::string_view kDescription =
    "\x31\0"
    "\0"
    "Log\0"
    "level\0\x01"
    "provider\0\x01"
    "caller\0\x01"
    "thread\0\x08"
    "message\0\x01"sv;
static_assert(kTraits.size() == 0x12 && kDescription.size() == 0x31);

constexpr std::uint8_t kSelfDescribing = 11;  // marks self-describing events for tools
constexpr int kProviderTraits = 2;            // the EventSetInformation class for traits

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

std::string_view BytesOf(const std::wstring& text) {
  return {reinterpret_cast<const char*>(text.c_str()), (text.size() + 1) * sizeof(wchar_t)};
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

TraceReport OpenTrace() {
  // Unregisters the provider when the last copy of the function is destroyed.
  const std::shared_ptr<REGHANDLE> provider(new REGHANDLE(0), [](const REGHANDLE* handle) {
    if (*handle != 0) EventUnregister(*handle);
    delete handle;
  });
  if (EventRegister(&kProvider, nullptr, nullptr, provider.get()) != ERROR_SUCCESS) *provider = 0;
  // Not available in every Windows version. Only tools that list providers need the traits.
  using SetInformation = ULONG(WINAPI*)(REGHANDLE, int, void*, ULONG);
  const auto set = reinterpret_cast<SetInformation>(reinterpret_cast<void*>(
      GetProcAddress(GetModuleHandleW(L"advapi32.dll"), "EventSetInformation")));
  std::string traits(kTraits);
  if (*provider != 0 && set != nullptr) {
    set(*provider, kProviderTraits, traits.data(), static_cast<ULONG>(traits.size()));
  }
  return [provider](std::uint8_t level, const TraceParts& parts) {
    if (*provider == 0 || EventProviderEnabled(*provider, level, 0) == FALSE) return;
    EVENT_DESCRIPTOR event{};
    event.Channel = kSelfDescribing;
    event.Level = level;
    EVENT_DATA_DESCRIPTOR data[std::tuple_size_v<TraceParts>];
    for (std::size_t i = 0; i < parts.size(); ++i) {
      EventDataDescCreate(&data[i], parts[i].data(), static_cast<ULONG>(parts[i].size()));
    }
    // A part's type is in the low byte of its reserved word: 2 for traits, 1 for a description.
    data[0].Reserved = 2;
    data[1].Reserved = 1;
    EventWrite(*provider, &event, static_cast<ULONG>(parts.size()), data);
  };
}

LogTarget TraceTarget(TraceReport report) {
  return [report = std::move(report)](const LogEntry& entry) {
    const LogLine& line = entry.line;
    const std::uint8_t level = line.level == L"ERROR" ? 2 : line.level == L"WARNING" ? 3 : 4;
    const std::string_view thread(reinterpret_cast<const char*>(&entry.thread),
                                  sizeof entry.thread);
    report(level, {kTraits, kDescription, BytesOf(line.level), BytesOf(line.provider),
                   BytesOf(line.caller), thread, BytesOf(line.message)});
  };
}

}  // namespace Vx::Hosting::ServiceHost
