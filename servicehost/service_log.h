#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "hosting/module_log.h"
#include "platform/thread.h"

namespace Vx::Host {

// One entry of the service's log.
struct LogEntry {
  std::uint64_t time = 0;  // UTC, on the scale of FILETIME
  std::uint32_t thread = 0;
  std::uint32_t process = 0;
  LogLine line;
};

// A place that entries go to. One thread calls it. It may block, and must not throw.
class LogTarget {
 public:
  virtual ~LogTarget() = default;

  // False if the entry is lost.
  virtual bool Write(const LogEntry& entry) noexcept = 0;
};

// Takes the entries of the service and writes them to every target, in order, on a thread of its
// own. Adding never waits for a target: when the queue is full the entry is dropped and counted,
// and the next entry that is written is a warning with that count.
//
// An entry without a record that a thread repeats is written once, and again with the number of
// repetitions when the thread adds another one or after a second.
class ServiceLog {
 public:
  static constexpr std::size_t kQueue = 4096;  // entries

  explicit ServiceLog(std::vector<std::unique_ptr<LogTarget>> places, std::size_t limit = kQueue,
                      std::chrono::milliseconds foldFor = std::chrono::seconds(1));
  ServiceLog(const ServiceLog&) = delete;
  ServiceLog& operator=(const ServiceLog&) = delete;
  // Writes what the queue holds first.
  ~ServiceLog();

  // Waits until every entry added so far was written, with the numbers of repetitions.
  void Flush() noexcept;

  // Any thread, which becomes the thread of the entry. The line of a module is copied.
  void Add(const VxLogLine& line) noexcept;
  // An entry of the service itself: `level` is INFO, WARNING or ERROR.
  void Add(const wchar_t* level, std::wstring_view message) noexcept;

 private:
  // The last entry of a thread.
  struct Repeat {
    LogEntry entry;
    std::chrono::steady_clock::time_point end;  // of folding
    std::uint64_t count = 0;                    // not written yet
  };

  void Add(LogLine line);
  void Run() noexcept;
  // Each returns how many entries were lost.
  std::uint64_t WriteNext(LogEntry entry) noexcept;
  std::uint64_t WriteRepeat(Repeat& repeat) noexcept;
  void CountLost() noexcept;
  bool WriteLoss(std::uint64_t count) noexcept;
  bool WriteEverywhere(const LogEntry& entry) noexcept;

  const std::vector<std::unique_ptr<LogTarget>> targets;
  const std::size_t capacity;
  std::mutex lock;
  std::condition_variable changed;
  std::deque<LogEntry> queue;  // under the lock, as the next three
  std::uint64_t lost = 0;      // since the last warning
  bool writing = false;
  bool ending = false;
  bool flushing = false;
  const std::chrono::milliseconds foldTime;
  std::array<Repeat, 64> repeats;  // of the writer. More threads than these take turns
  Platform::Thread writer;
};

// An entry now, of this thread.
LogEntry EntryOf(LogLine line);

// `entry` as one JSON object in UTF-8 with a line feed: time (UTC, ISO 8601), level, provider,
// caller, thread, process, message, and `record` with those members of a record that say something:
// texts that are not empty, and numbers other than 0. A command or an event has a number even if
// it is 0. A message is never split over lines, so the lines of one thread
// tell one delivery from another.
std::string JsonLineOf(const LogEntry& entry);

}  // namespace Vx::Host
