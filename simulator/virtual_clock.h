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

// Workers did not come to rest within the clock's patience: one of them runs for ever, waits for
// something that is no business of the clock, or is blocked by a lock that a parked one holds.
class ClockStuck : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A clock whose time moves only when a test (or the simulator) says so.
//
// Every thread that Platform::Thread starts counts as running from the call that starts it until it
// is parked in Sleep or Wait, or gone. Advance moves time to the next due moment only while no
// worker runs, wakes one wait, lets everybody come to rest again, and goes on, so that the order of
// what happens is the same in each run. A worker whose handle has been signalled, by whomever,
// counts as running from the signal on. One that is set and reset at once may go unnoticed until
// its thread is scheduled; mutexes are not for this clock.
//
// Every other thread (a test's own, the host's) is outside: when it waits, it moves time itself,
// up to its own deadline or until its handle is signalled. Any thread may call anything here.
class VirtualClock final : public Platform::Clock {
 public:
  VirtualClock();
  VirtualClock(const VirtualClock&) = delete;
  VirtualClock& operator=(const VirtualClock&) = delete;

  // Ends the process with a message when a worker is still parked here.
  ~VirtualClock() override;

  // Moves time on, through all that is due until then; everybody is at rest when it returns. Throws
  // ClockStuck.
  void Advance(Duration length);

  // Moves time from one due moment to the next until `reached` holds (asked only while everybody
  // is at rest; it must not wait); false when it still does not hold after `limit` or nothing is
  // left to wait for.
  bool AdvanceUntil(const std::function<bool()>& reached, Duration limit);

  // Waits in real time until every worker is parked or gone; time stands still. Throws ClockStuck.
  void Settle();

  // The machine slept: tick count and UTC have moved on, while waits have not.
  void JumpTicks(Duration asleep);

  void SetTickCount(std::uint64_t ticks);
  void SetUtcFileTime(std::uint64_t fileTime);

  // How long, in real time, Settle lets workers run before it gives up; 10 s at first.
  void SetPatience(Duration patience);

  // Time that Advance has passed since the clock was made; sleep of the machine not included.
  Duration Elapsed() const;

  // Threads started and not yet gone.
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
    Platform::RawHandle callersHandle = nullptr;  // null: a sleep
    Platform::UniqueHandle handle;  // the clock's own, as the caller's may be closed meanwhile
    bool level = false;             // stays signalled however many waits it ends
    Platform::UniqueHandle second;  // of a wait for two manual-reset events
    std::optional<Duration> deadline;
    std::uint64_t turn = 0;  // of equal deadlines, the earlier wait is first
    Platform::UniqueHandle wake;
    Wake woken = Wake::No;
  };

  struct Timer {
    Platform::UniqueHandle event;  // the clock's own handle: the owner may close the other
    std::optional<Duration> due;
    std::uint64_t turn = 0;
  };

  // What is due next: one waiter or one timer.
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
  Platform::UniqueHandle TakeWakeEvent();
  bool CallerIsWorker() const;
  void Release(Waiter& waiter, Wake reason);
  bool AtRest();
  bool WaitForRest(Lock& lock, Duration limit);
  void RequireRest(Lock& lock);
  std::optional<Due> NextDue();
  void Fire(const Due& due);
  bool StepTo(Lock& lock, Duration limit);
  std::string Describe() const;

  // Held by the one thread that moves time; taken before `mutex`.
  std::mutex driving;

  mutable std::mutex mutex;  // guards all below
  std::condition_variable changed;
  Duration now{};
  Duration patience{std::chrono::seconds(10)};
  std::uint64_t tickBase;
  std::uint64_t utcBase;
  std::uint64_t nextTurn = 0;
  std::size_t workers = 0;
  std::map<std::uint32_t, Platform::UniqueHandle> threads;  // workers that have begun, by thread id
  std::vector<Platform::UniqueHandle> ending;  // have said goodbye, but the system runs them still
  std::list<Waiter> waiters;
  std::map<Platform::RawHandle, Timer> timers;
  std::vector<Platform::UniqueHandle> idleWakeEvents;
};

}  // namespace Vx::Simulator
