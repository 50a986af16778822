#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "host/logging.h"

namespace Vx::Tests {

// Passes each line that is logged in its lifetime to a function, on the logging thread.
class LogSink {
 public:
  explicit LogSink(Tessel::Server::Logging::LogManager::Sink sink)
      : id(Tessel::Server::Logging::LogManager::AddSink(std::move(sink))) {}
  LogSink(const LogSink&) = delete;
  LogSink& operator=(const LogSink&) = delete;
  ~LogSink() { Tessel::Server::Logging::LogManager::RemoveSink(id); }

 private:
  Tessel::Server::Logging::LogManager::SinkId id;
};

// Collects every line logged in its lifetime: "info|", "warning|" or "error|", then the message.
// Records go to Records() instead. Any thread may log.
class LogCapture {
 public:
  std::vector<std::wstring> Lines() const { return CopyOf(lines); }

  std::vector<std::wstring> Callers() const { return CopyOf(callers); }

  // "KIND NUMBER DECISION", followed where present by ":REASON", " TARGET", " in PACKAGE", " by
  // CLIENT", " of SUBSCRIPTION", " status N", " process N", " after N ms".
  std::vector<std::wstring> Records() const { return CopyOf(records); }

  std::vector<std::uint64_t> Deliveries() const { return CopyOf(deliveries); }

  bool Has(const std::wstring& line) const { return std::ranges::count(Lines(), line) != 0; }

  void Clear() {
    const std::lock_guard guard(mutex);
    lines.clear();
    callers.clear();
    records.clear();
    deliveries.clear();
  }

 private:
  template <typename Texts>
  Texts CopyOf(const Texts& texts) const {
    const std::lock_guard guard(mutex);
    return texts;
  }

  void Add(const Tessel::Server::Logging::LogRecord& record) {
    static constexpr const wchar_t* kLevels[] = {L"info|", L"warning|", L"error|"};
    const std::lock_guard guard(mutex);
    if (record.record != nullptr) return AddRecord(*record.record);
    lines.push_back(kLevels[static_cast<int>(record.level)] + std::wstring(record.message));
    callers.emplace_back(record.caller);
  }

  void AddRecord(const VxLogRecord& record) {
    std::wstring text =
        record.kind + (L" " + std::to_wstring(record.number) + L" ") + record.decision;
    const auto add = [&text](const wchar_t* name, const std::wstring& value) {
      if (!value.empty() && value != L"0") text += name + value;
    };
    add(L":", record.reason);
    add(L" ", record.target);
    add(L" in ", record.package);
    add(L" by ", record.client);
    add(L" of ", record.subscription);
    add(L" status ", std::to_wstring(static_cast<std::int32_t>(record.status)));
    add(L" process ", std::to_wstring(record.process));
    add(L" after ", std::to_wstring(record.milliseconds));
    records.push_back(text);
    deliveries.push_back(record.delivery);
  }

  mutable std::mutex mutex;
  std::vector<std::wstring> lines;
  std::vector<std::wstring> callers;
  std::vector<std::wstring> records;
  std::vector<std::uint64_t> deliveries;
  // Last, because its function uses the members above.
  const LogSink sink{[this](const Tessel::Server::Logging::LogRecord& record) { Add(record); }};
};

// When a line with `text` is logged for the `time`th time, runs an action on the logging thread.
struct LogTrap : LogSink {
  LogTrap(std::wstring text, int time, std::function<void()> action)
      : LogSink([wanted = std::move(text), left = time, run = std::move(action)](
                    const Tessel::Server::Logging::LogRecord& record) mutable {
          if (record.message.find(wanted) != record.message.npos && --left == 0) run();
        }) {}
};

}  // namespace Vx::Tests
