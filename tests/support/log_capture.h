#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "host/logging.h"

namespace Vx::Tests {

// Collects every log line that is written while it lives, as "info|", "warning|" or "error|" and
// the message. Any thread may log meanwhile.
class LogCapture {
 public:
  LogCapture()
      : sink(Tessel::Server::Logging::LogManager::AddSink(
            [this](const Tessel::Server::Logging::LogRecord& record) { Add(record); })) {}
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  ~LogCapture() { Tessel::Server::Logging::LogManager::RemoveSink(sink); }

  std::vector<std::wstring> Lines() const {
    const std::lock_guard guard(mutex);
    return lines;
  }

  // The caller identities of the same lines.
  std::vector<std::wstring> Callers() const {
    const std::lock_guard guard(mutex);
    return callers;
  }

  bool Has(const std::wstring& line) const {
    const auto all = Lines();
    return std::find(all.begin(), all.end(), line) != all.end();
  }

  void Clear() {
    const std::lock_guard guard(mutex);
    lines.clear();
    callers.clear();
  }

 private:
  void Add(const Tessel::Server::Logging::LogRecord& record) {
    static constexpr const wchar_t* kLevels[] = {L"info|", L"warning|", L"error|"};
    const std::lock_guard guard(mutex);
    lines.push_back(kLevels[static_cast<int>(record.level)] + std::wstring(record.message));
    callers.emplace_back(record.caller);
  }

  mutable std::mutex mutex;
  std::vector<std::wstring> lines;
  std::vector<std::wstring> callers;
  Tessel::Server::Logging::LogManager::SinkId sink;
};

}  // namespace Vx::Tests
