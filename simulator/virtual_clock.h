#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/clock.h"

namespace Vx::Simulator {

// Thrown if the workers do not all come to rest within the clock's patience: one runs forever,
// waits for something outside the clock, or is blocked by a lock that a parked worker holds.
class ClockStuck : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A clock whose time moves only when a test or the simulator advances it.
//
// Every Platform::Thread is a worker. It counts as running from its start until it ends or is
// parked in Sleep or Wait. While no worker runs, Advance moves time to the next deadline, wakes one
// wait, waits until every worker is at rest again, and repeats, so that events occur in the same
// order in each run. A worker whose handle is signaled counts as running from then on, whichever
// thread signaled it. An event that is set and immediately reset may be missed if the waiting
// thread has not been scheduled yet. Mutexes are not supported.
//
// All other threads (a test's or the host's) are outside threads. When one waits, time advances
// until its deadline or until its handle is signaled. Thread-safe.
class VirtualClock final : public Platform::Clock {
 public:
  VirtualClock();
  VirtualClock(const VirtualClock&) = delete;
  VirtualClock& operator=(const VirtualClock&) = delete;

  // Ends the process with a message if a worker is still parked here.
  ~VirtualClock() override;

  // Advances time deadline by deadline. Returns with every worker at rest. Throws ClockStuck.
  void Advance(Duration length);

  // Moves time from one deadline to the next until `reached`, which must not wait, returns true.
  // Every worker is at rest when it is called. Returns false after `limit` or if no wait is left.
  bool AdvanceUntil(const std::function<bool()>& reached, Duration limit);

  // Waits in real time, with virtual time frozen, until every worker is at rest. Throws ClockStuck.
  void Settle();

  // Simulates sleep: advances the tick count and UTC, but not pending waits.
  void JumpTicks(Duration asleep);

  void SetTickCount(std::uint64_t ticks);
  void SetUtcFileTime(std::uint64_t fileTime);

  // Sets how long, in real time, Settle lets workers run before it throws. Initially 30 s.
  void SetPatience(Duration patience);

  // Returns how far the clock has been advanced since construction, excluding sleep.
  Duration Elapsed() const;

  // Returns the same time including sleep, as on a wall clock.
  Duration Moment() const;

  // Returns the number of threads that have been started and have not ended.
  std::size_t Workers() const;

  std::uint64_t TickCount() const override;
  std::uint64_t UtcFileTime() const override;
  void Sleep(Duration length) override;
  Platform::WaitResult Wait(Platform::RawHandle handle, std::optional<Duration> length) override;
  Platform::WaitResult WaitForEither(Platform::RawHandle first, Platform::RawHandle second,
                                     Duration length) override;
  Platform::Result<Platform::UniqueHandle> MakeTimer() override;
  Platform::ErrorCode SetTimer(Platform::RawHandle timer, Duration due) override;
  void WorkerStarting() override;
  void WorkerStarted() override;
  void WorkerNotStarted() override;
  void WorkerEnded() override;

 private:
  enum class Wake : std::uint8_t { No, Signalled, Due };

  struct Waiter {
    Platform::RawHandle callersHandle = nullptr;  // null for a sleep
    Platform::UniqueHandle handle;  // a duplicate, because the caller may close its own
    bool level = false;             // stays signaled after a wait
    Platform::UniqueHandle second;  // the second of two manual-reset events, or null
    std::optional<Duration> deadline;
    std::uint64_t turn = 0;  // orders waits with equal deadlines
    Platform::UniqueHandle wake;
    Wake woken = Wake::No;
  };

  struct Timer {
    Platform::UniqueHandle event;  // a duplicate, because the owner may close its own
    std::optional<Duration> due;
    std::uint64_t turn = 0;
  };

  struct Due {
    Duration at{};
    std::uint64_t turn = 0;
    Waiter* waiter = nullptr;
    Timer* timer = nullptr;
  };

  using Lock = std::unique_lock<std::mutex>;

  Platform::WaitResult WaitFor(Platform::RawHandle handle, Platform::RawHandle second,
                               std::optional<Duration> length);
  Platform::WaitResult WaitAsWorker(Lock& lock, Platform::RawHandle handle,
                                    Platform::RawHandle second, std::optional<Duration> deadline);
  Platform::WaitResult WaitOutside(Lock& lock, Platform::RawHandle handle,
                                   Platform::RawHandle second, std::optional<Duration> deadline);
  Wake Park(Lock& lock, Waiter& waiter);
  bool CallerIsWorker() const;
  void Release(Waiter& waiter, Wake reason);
  bool AtRest();
  bool WaitForRest(Lock& lock, Duration limit);
  void RequireRest(Lock& lock);
  bool WaitToStep(Lock& lock, Duration limit);
  std::optional<Due> NextDue();
  void Fire(const Due& due);
  bool StepTo(Lock& lock, Duration limit);
  std::string Describe() const;

  // Held by the thread that moves time. Acquired before `mutex`.
  std::mutex driving;

  mutable std::mutex mutex;  // guards everything below
  std::condition_variable changed;
  Duration now{};
  Duration slept{};
  Duration patience;
  std::uint64_t tickBase;
  std::uint64_t utcBase;
  std::uint64_t nextTurn = 0;
  std::size_t workers = 0;
  std::map<std::uint32_t, Platform::UniqueHandle> threads;  // running workers, by thread id
  std::vector<Platform::UniqueHandle> ending;               // called WorkerEnded but still running
  std::list<Waiter> waiters;
  std::map<Platform::RawHandle, Timer> timers;
};

}  // namespace Vx::Simulator
