#include "servicehost/service_log.h"

#include <exception>
#include <utility>

#include <windows.h>

#include "hosting/text.h"
#include "platform/clock.h"
#include "platform/machine.h"
#include "servicehost/envelope.h"

namespace Vx::Host {

namespace {

constexpr wchar_t kDropped[] = L" log lines were dropped";

void AppendRecord(std::string& out, const DecisionRecord& record) {
  char separator = '{';
  const auto begin = [&](const char* name) {
    ((out += separator) += '"').append(name) += "\":";
    separator = ',';
  };
  for (const auto& member : kRecordTexts) {
    if ((record.*member.text).empty()) continue;
    begin(member.name);
    AppendJsonString(out, record.*member.text);
  }
  const bool counts =
      record.kind == L"command" || record.kind == L"power" || record.kind == L"platform";
  const struct {
    const char* name;
    std::uint64_t value;
    bool needed = false;
  } kNumbers[] = {{"number", record.number, counts},
                  {"status", record.status},
                  {"process", record.process},
                  {"delivery", record.delivery},
                  {"milliseconds", record.milliseconds}};
  for (const auto& number : kNumbers) {
    if (number.value == 0 && !number.needed) continue;
    begin(number.name);
    out += std::to_string(number.value);
  }
  if (separator == '{') out += '{';
  out += '}';
}

}  // namespace

LogEntry EntryOf(LogLine line) {
  return {Platform::CurrentMachine().clock->UtcFileTime(), GetCurrentThreadId(),
          GetCurrentProcessId(), std::move(line)};
}

std::string JsonLineOf(const LogEntry& entry) {
  std::string text = R"({"time":")" + Utf8(DateTimeText(entry.time)) + R"(Z","level":)";
  AppendJsonString(text, entry.line.level);
  text += R"(,"provider":)";
  AppendJsonString(text, entry.line.provider);
  text += R"(,"caller":)";
  AppendJsonString(text, entry.line.caller);
  text += R"(,"thread":)" + std::to_string(entry.thread);
  text += R"(,"process":)" + std::to_string(entry.process);
  text += R"(,"message":)";
  AppendJsonString(text, entry.line.message);
  if (entry.line.record) {
    text += R"(,"record":)";
    AppendRecord(text, *entry.line.record);
  }
  return text + "}\n";
}

ServiceLog::ServiceLog(std::vector<std::unique_ptr<LogTarget>> places, std::size_t limit)
    : targets(std::move(places)), capacity(limit), writer([this] { Run(); }) {}

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
  changed.wait(guard, [this] { return queue.empty() && !writing; });
}

void ServiceLog::Add(LogLine line) {
  LogEntry entry = EntryOf(std::move(line));
  const std::lock_guard guard(lock);
  if (queue.size() >= capacity) {
    ++lost;
    return;
  }
  queue.push_back(std::move(entry));
  changed.notify_all();
}

void ServiceLog::Add(const VxLogLine& line) noexcept {
  try {
    Add(LineOf(line));
  } catch (const std::exception&) {
    CountLost();
  }
}

void ServiceLog::Add(const wchar_t* level, std::wstring_view message) noexcept {
  try {
    Add(LogLine{level, kHostProvider, {}, std::wstring(message)});
  } catch (const std::exception&) {
    CountLost();
  }
}

void ServiceLog::CountLost() noexcept {
  {
    const std::lock_guard guard(lock);
    ++lost;
  }
  changed.notify_all();
}

void ServiceLog::Run() noexcept {
  std::unique_lock guard(lock);
  while (true) {
    changed.wait(guard, [this] { return ending || !queue.empty(); });
    if (queue.empty()) return;
    const LogEntry entry = std::move(queue.front());
    queue.pop_front();
    const std::uint64_t missing = std::exchange(lost, 0);
    writing = true;
    guard.unlock();
    std::uint64_t failed = 0;
    if (missing != 0 && !WriteLoss(missing)) failed += missing;
    if (!WriteEverywhere(entry)) ++failed;
    guard.lock();
    lost += failed;
    writing = false;
    changed.notify_all();
  }
}

bool ServiceLog::WriteLoss(std::uint64_t count) noexcept {
  try {
    return WriteEverywhere(
        EntryOf(LogLine{L"WARNING", kHostProvider, {}, std::to_wstring(count) + kDropped}));
  } catch (const std::exception&) {
    return false;
  }
}

bool ServiceLog::WriteEverywhere(const LogEntry& entry) noexcept {
  bool written = true;
  for (const auto& target : targets) written = target->Write(entry) && written;
  return written;
}

}  // namespace Vx::Host
