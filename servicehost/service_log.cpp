#include "servicehost/service_log.h"

#include <algorithm>
#include <exception>
#include <utility>

#include <windows.h>

#include "hosting/json_row.h"
#include "hosting/text.h"
#include "platform/clock.h"
#include "platform/machine.h"

namespace Vx::Hosting::ServiceHost {

namespace {

using Clock = std::chrono::steady_clock;

constexpr wchar_t kDropped[] = L" log lines were dropped";
constexpr wchar_t kLosing[] = L"log lines are lost from here on: ";
constexpr wchar_t kRepeated[] = L" (repeated: ";  // followed by the count and a bracket

JsonRow RowOf(const DecisionRecord& record) {
  JsonRow row{};
  for (const auto& member : kRecordTexts) {
    if (!(record.*member.text).empty()) row.Add({member.name, record.*member.text});
  }
  const bool counts =
      record.kind == L"command" || record.kind == L"power" || record.kind == L"platform";
  if (counts || record.number != 0) row.Add({L"number", record.number});
  if (record.status != 0) row.Add({L"status", record.status});
  if (record.process != 0) row.Add({L"process", record.process});
  if (record.delivery != 0) row.Add({L"delivery", record.delivery});
  if (record.milliseconds != 0) row.Add({L"milliseconds", record.milliseconds});
  return row;
}

// Entries with records never count as repeated: each record is a separate decision.
bool IsRepeated(const LogLine& line, const LogLine& next) {
  return !line.record && !next.record && line.message == next.message && line.level == next.level &&
         line.provider == next.provider && line.caller == next.caller;
}

// Returns an entry for the calling thread, stamped with the current time.
LogEntry EntryOf(LogLine line) {
  return {Platform::CurrentMachine().clock->UtcFileTime(), GetCurrentThreadId(),
          GetCurrentProcessId(), std::move(line)};
}

LogEntry HostEntry(const wchar_t* level, std::wstring message) {
  return EntryOf(LogLine{level, kHostProvider, {}, std::move(message)});
}

}  // namespace

std::string JsonLineOf(const LogEntry& entry) {
  const LogLine& line = entry.line;
  JsonRow row{{L"time", DateTimeText(entry.time) + L'Z'},
              {L"level", line.level},
              {L"provider", line.provider},
              {L"caller", line.caller},
              {L"thread", entry.thread},
              {L"process", entry.process},
              {L"message", line.message}};
  if (line.record) row.Add({L"record", RowOf(*line.record)});
  return Utf8(row.Text()) + '\n';
}

ServiceLog::ServiceLog(std::vector<LogTarget> targets, std::size_t limit,
                       std::chrono::milliseconds foldFor)
    : capacity(limit), foldTime(foldFor) {
  for (auto& target : targets) places.push_back({std::move(target)});
  writer = Platform::Thread([this] { Run(); });
}

ServiceLog::~ServiceLog() {
  {
    const std::lock_guard guard(lock);
    ending = true;
  }
  changed.notify_all();
  writer.Join();
}

void ServiceLog::Flush() noexcept {
  std::unique_lock guard(lock);
  flushing = true;
  changed.notify_all();
  changed.wait(guard, [this] { return queue.empty() && !writing && !flushing; });
}

void ServiceLog::Add(const VxLogLine& line) noexcept {
  AddLine([&line] { return LineOf(line); });
}

void ServiceLog::Add(const wchar_t* level, std::wstring_view message) noexcept {
  AddLine([&] { return LogLine{level, kHostProvider, {}, std::wstring(message)}; });
}

// Adds the line that `make` returns, or counts it if the queue is full or memory runs out.
template <typename Make>
void ServiceLog::AddLine(const Make& make) noexcept {
  try {
    LogEntry entry = EntryOf(make());
    const std::lock_guard guard(lock);
    if (queue.size() < capacity) {
      queue.push_back(std::move(entry));
      changed.notify_all();
    } else {
      ++lost;
    }
    return;
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch): counted below
  }
  const std::lock_guard guard(lock);
  ++lost;
}

void ServiceLog::Run() noexcept {
  const auto ready = [this] { return ending || flushing || !queue.empty(); };
  std::unique_lock guard(lock);
  for (bool ended = false; !ended;) {
    auto next = Clock::time_point::max();
    for (const Repeat& repeat : repeats) {
      if (repeat.count != 0) next = std::min(next, repeat.end);
    }
    if (next == Clock::time_point::max()) {
      changed.wait(guard, ready);
    } else {
      changed.wait_until(guard, next, ready);
    }
    const bool idle = queue.empty();
    const bool all = idle && (ending || flushing);
    ended = idle && ending;
    if (all) flushing = false;
    LogEntry entry;
    std::uint64_t missing = 0;
    if (!idle) {
      entry = std::move(queue.front());
      queue.pop_front();
      missing = std::exchange(lost, 0);
    }
    writing = true;
    guard.unlock();
    for (Repeat& repeat : repeats) {
      if (all || repeat.end <= Clock::now()) WriteRepeat(repeat);
    }
    for (Place& place : places) place.lost += missing;
    if (!idle) WriteNext(std::move(entry));
    guard.lock();
    writing = false;
    changed.notify_all();
  }
}

void ServiceLog::WriteNext(LogEntry entry) noexcept {
  const auto threadOf = [](const Repeat& repeat) { return repeat.entry.thread; };
  auto known = std::ranges::find(repeats, entry.thread, threadOf);
  if (known == repeats.end()) known = std::ranges::min_element(repeats, {}, &Repeat::end);
  const auto now = Clock::now();
  if (known->entry.thread == entry.thread && now < known->end &&
      IsRepeated(known->entry.line, entry.line)) {
    ++known->count;
    return;
  }
  WriteRepeat(*known);
  *known = {std::move(entry), now + foldTime};
  WriteEverywhere(known->entry);
}

void ServiceLog::WriteRepeat(Repeat& repeat) noexcept {
  const std::uint64_t count = std::exchange(repeat.count, 0);
  if (count == 0) return;
  try {
    LogEntry entry = repeat.entry;
    entry.time = Platform::CurrentMachine().clock->UtcFileTime();
    entry.line.message += kRepeated + std::to_wstring(count) + L")";
    WriteEverywhere(entry);
  } catch (const std::exception&) {
    for (Place& place : places) ++place.lost;
  }
}

void ServiceLog::WriteEverywhere(const LogEntry& entry) noexcept {
  for (Place& place : places) {
    try {
      if (place.lost != 0) {
        place.target(HostEntry(L"WARNING", std::to_wstring(place.lost) + kDropped));
        place.lost = 0;
      }
      place.target(entry);
      place.failing = false;
    } catch (const std::exception& error) {
      ++place.lost;
      if (!std::exchange(place.failing, true)) ReportFailure(error.what());
    }
  }
}

void ServiceLog::ReportFailure(const char* why) noexcept {
  try {
    const LogEntry entry = HostEntry(L"ERROR", kLosing + Wide(why));
    for (const Place& place : places) {
      if (!place.failing) place.target(entry);
    }
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch): it reports its next failure
  }
}

}  // namespace Vx::Hosting::ServiceHost
