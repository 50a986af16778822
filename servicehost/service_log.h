#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "hosting/loaded_module.h"
#include "platform/thread.h"

namespace Vx::Hosting::ServiceHost {

struct LogEntry {
  std::uint64_t time = 0;  // a FILETIME, in UTC
  std::uint32_t thread = 0;
  std::uint32_t process = 0;
  LogLine line;
};

// A destination for log entries. Called on one thread. It may block, and throws std::exception with
// the reason if the entry is lost.
using LogTarget = std::function<void(const LogEntry&)>;

// Writes log entries to every target, in order, on its own thread. Adding never waits for a target:
// if the queue is full, entries are dropped, and a warning with their number precedes the next
// entry. When a target starts to lose entries, the others receive an error with the reason. Once
// the target works again, it receives a warning with the number of lost entries.
//
// If a thread repeats an entry that has no record, the entry is written once. After a second, or
// before the thread's next different entry, it is written again with the number of repetitions.
class ServiceLog {
 public:
  static constexpr std::size_t kQueue = 4096;  // entries

  explicit ServiceLog(std::vector<LogTarget> targets, std::size_t limit = kQueue,
                      std::chrono::milliseconds foldFor = std::chrono::seconds(1));
  ServiceLog(const ServiceLog&) = delete;
  ServiceLog& operator=(const ServiceLog&) = delete;
  // Writes the queued entries first.
  ~ServiceLog();

  // Waits until every entry added so far has been written, including repetition counts.
  void Flush() noexcept;

  // Adds a copy of a module's line, with the calling thread's ID. May be called on any thread.
  void Add(const VxLogLine& line) noexcept;
  // Adds an entry from the service itself. `level` is INFO, WARNING or ERROR. Any thread.
  void Add(const wchar_t* level, std::wstring_view message) noexcept;

 private:
  // A thread's last entry.
  struct Repeat {
    LogEntry entry;
    std::chrono::steady_clock::time_point end;  // when folding ends
    std::uint64_t count = 0;                    // repetitions not yet written
  };

  // A target, and the number of entries lost since it last accepted one.
  struct Place {
    LogTarget target;
    std::uint64_t lost = 0;
    bool failing = false;
  };

  template <typename Make>
  void AddLine(const Make& make) noexcept;
  void Run() noexcept;
  void WriteNext(LogEntry entry) noexcept;
  void WriteRepeat(Repeat& repeat) noexcept;
  void WriteEverywhere(const LogEntry& entry) noexcept;
  void ReportFailure(const char* why) noexcept;

  std::vector<Place> places;  // used only by the writer
  const std::size_t capacity;
  std::mutex lock;
  std::condition_variable changed;
  std::deque<LogEntry> queue;  // guarded by `lock`, like the next four
  std::uint64_t lost = 0;      // dropped before they reached the writer
  bool writing = false;
  bool ending = false;
  bool flushing = false;
  const std::chrono::milliseconds foldTime;
  std::array<Repeat, 64> repeats;  // used only by the writer; further threads share slots
  Platform::Thread writer;
};

// Returns `entry` as one JSON object in UTF-8 and a line feed: time (UTC, ISO 8601), level,
// provider, caller, thread, process, message, and `record` with its nonempty strings and nonzero
// numbers. The number of a command or event is present even if 0. A message is never split across
// lines, so that a thread's lines can be assigned to deliveries.
std::string JsonLineOf(const LogEntry& entry);

}  // namespace Vx::Hosting::ServiceHost
