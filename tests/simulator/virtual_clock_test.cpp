#include "simulator/virtual_clock.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <windows.h>

namespace Vx::Simulator {

namespace {

using namespace std::chrono_literals;
using Platform::WaitOutcome;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Duration = Platform::Clock::Duration;

Platform::UniqueHandle MakeEvent(bool manual) {
  return Platform::UniqueHandle(CreateEventW(nullptr, manual ? TRUE : FALSE, FALSE, nullptr));
}

class VirtualClockTest : public ::testing::Test {
 protected:
  ~VirtualClockTest() override {
    for (std::thread& thread : threads) {
      if (thread.joinable()) thread.join();
    }
  }

  // Starts a thread that is counted like one of Platform::Thread, and returns its handle.
  HANDLE StartWorker(std::function<void()> body) {
    clock.WorkerStarting();
    threads.emplace_back([this, run = std::move(body)] {
      clock.WorkerStarted();
      run();
      clock.WorkerEnded();
    });
    return reinterpret_cast<HANDLE>(pthread_gethandle(threads.back().native_handle()));
  }

  void Note(int what) {
    const std::lock_guard guard(mutex);
    notes.emplace_back(what, clock.Elapsed());
  }

  VirtualClock clock;
  std::mutex mutex;
  std::vector<std::pair<int, Duration>> notes;
  std::vector<std::thread> threads;
};

TEST_F(VirtualClockTest, WakesWaitsInTheOrderOfTheirDeadlinesAtExactlyTheirTime) {
  const auto event = MakeEvent(true);
  const std::pair<int, Duration> workers[] = {{1, 300ms}, {2, 100ms}, {3, 200ms}, {4, 200ms}};
  for (const auto& [name, length] : workers) {
    StartWorker([this, name = name, length = length, &event] {
      if (name % 2 == 0) {
        clock.Sleep(length);
      } else {
        EXPECT_EQ(clock.Wait(event.get(), length).outcome, WaitOutcome::TimedOut);
      }
      Note(name);
    });
    clock.Settle();
  }

  clock.Advance(99ms);
  EXPECT_TRUE(notes.empty());
  clock.Advance(1s);
  EXPECT_THAT(notes, ElementsAre(std::pair(2, 100ms), std::pair(3, 200ms), std::pair(4, 200ms),
                                 std::pair(1, 300ms)));
  EXPECT_EQ(clock.Elapsed(), 1099ms);
  EXPECT_EQ(clock.Workers(), 0U);
}

TEST_F(VirtualClockTest, AdvancesOnlyUntilWhatIsAskedForHolds) {
  std::atomic<int> polls = 0;
  StartWorker([this, &polls] {
    while (clock.Elapsed() < 2min) {
      clock.Sleep(1s);
      ++polls;
    }
  });
  EXPECT_TRUE(clock.AdvanceUntil([&polls] { return polls == 60; }, 1h));
  EXPECT_EQ(clock.Elapsed(), 1min);
  EXPECT_FALSE(clock.AdvanceUntil([] { return false; }, 1h)) << "nothing is left to wait for";
  EXPECT_EQ(polls, 120);
}

TEST_F(VirtualClockTest, LetsASignalledWorkerRunBeforeTimeMoves) {
  for (const bool manual : {true, false}) {
    SCOPED_TRACE(manual ? "manual-reset" : "auto-reset");
    for (int round = 0; round < 30; ++round) {
      const auto event = MakeEvent(manual);
      const Duration start = clock.Elapsed();
      Duration woken{};
      WaitOutcome outcome = WaitOutcome::Failed;
      StartWorker([&] {
        outcome = clock.Wait(event.get(), 1min).outcome;
        woken = clock.Elapsed();
      });
      clock.Settle();
      SetEvent(event.get());
      clock.Advance(2min);
      ASSERT_EQ(outcome, WaitOutcome::Signalled);
      ASSERT_EQ(woken, start);
    }
  }
}

TEST_F(VirtualClockTest, OneSignalOfAnAutoResetEventEndsOneWait) {
  const auto event = MakeEvent(false);
  std::atomic<int> signalled = 0;
  for (int worker = 0; worker < 2; ++worker) {
    StartWorker([&] {
      if (clock.Wait(event.get(), 1min).outcome == WaitOutcome::Signalled) ++signalled;
    });
  }
  clock.Settle();
  SetEvent(event.get());
  clock.Settle();
  EXPECT_EQ(signalled, 1);
  EXPECT_EQ(clock.Workers(), 1U);
  clock.Advance(1min);
  EXPECT_EQ(signalled, 1);
}

// Pairs of workers: one sleeps, notes the time and signals. The other must see exactly that time.
TEST_F(VirtualClockTest, NeverMovesTimeBetweenASignalAndItsEffect) {
  constexpr int kPairs = 10;
  constexpr int kRounds = 20;
  struct Pair {
    Platform::UniqueHandle event;
    Platform::UniqueHandle taken;
    std::atomic<Duration::rep> signalledAt = 0;
  };
  std::vector<Pair> pairs(kPairs);
  std::atomic<int> early = 0;
  std::atomic<int> handed = 0;
  for (int index = 0; index < kPairs; ++index) {
    Pair& pair = pairs[static_cast<std::size_t>(index)];
    pair.event = MakeEvent(false);
    pair.taken = MakeEvent(false);
    StartWorker([&, index] {
      std::minstd_rand random(static_cast<unsigned>(index + 1));
      for (int round = 0; round < kRounds; ++round) {
        clock.Sleep(Duration(1 + random() % 50));
        pair.signalledAt = clock.Elapsed().count();
        SetEvent(pair.event.get());
        if (clock.Wait(pair.taken.get(), 1h).outcome != WaitOutcome::Signalled) ++early;
      }
    });
    StartWorker([&] {
      for (int round = 0; round < kRounds; ++round) {
        const auto outcome = clock.Wait(pair.event.get(), 1h).outcome;
        if (outcome != WaitOutcome::Signalled || clock.Elapsed().count() != pair.signalledAt) {
          ++early;
        }
        ++handed;
        SetEvent(pair.taken.get());
      }
    });
  }
  clock.Advance(1min);
  EXPECT_EQ(early, 0);
  EXPECT_EQ(handed, kPairs * kRounds);
  EXPECT_EQ(clock.Workers(), 0U);
}

TEST_F(VirtualClockTest, CountsAWorkerUntilItsThreadIsReallyGone) {
  for (int round = 0; round < 20; ++round) {
    const Duration start = clock.Elapsed();
    const HANDLE sleeper = StartWorker([this] { clock.Sleep(5ms); });
    Duration joined{};
    StartWorker([&] {
      clock.Wait(sleeper, std::nullopt);
      joined = clock.Elapsed();
    });
    StartWorker([this] { clock.Sleep(6ms); });
    clock.Advance(1s);
    ASSERT_EQ(joined - start, 5ms);
  }
}

TEST_F(VirtualClockTest, LetsWaitsOfOneDeadlineGoTogetherWhenOneNeedsTheOther) {
  std::mutex shared;
  std::atomic<int> done = 0;
  StartWorker([&] {
    clock.Sleep(1s);
    const std::lock_guard guard(shared);
    ++done;
  });
  clock.Settle();
  StartWorker([&] {
    const std::lock_guard guard(shared);
    clock.Sleep(1s);
    ++done;
  });
  clock.Settle();
  clock.Advance(1s);
  clock.Settle();
  EXPECT_EQ(done, 2);
}

TEST_F(VirtualClockTest, FiresATimerOnceAsAnAutoResetHandle) {
  auto timer = clock.MakeTimer();
  ASSERT_TRUE(timer);
  EXPECT_EQ(clock.SetTimer(timer->get(), 1h), 0U);
  StartWorker([&] {
    EXPECT_EQ(clock.Wait(timer->get(), std::nullopt).outcome, WaitOutcome::Signalled);
    Note(1);
  });
  clock.Advance(2h);
  EXPECT_THAT(notes, ElementsAre(std::pair(1, 1h)));

  EXPECT_EQ(clock.SetTimer(timer->get(), 1min), 0U);
  clock.Advance(1min - 1ms);
  EXPECT_EQ(WaitForSingleObject(timer->get(), 0), DWORD{WAIT_TIMEOUT});
  clock.Advance(1ms);
  EXPECT_EQ(WaitForSingleObject(timer->get(), 0), DWORD{WAIT_OBJECT_0});
  EXPECT_EQ(WaitForSingleObject(timer->get(), 0), DWORD{WAIT_TIMEOUT});

  const auto event = MakeEvent(false);
  EXPECT_EQ(clock.SetTimer(event.get(), 1s), DWORD{ERROR_INVALID_HANDLE});
}

TEST_F(VirtualClockTest, ATimerThatItsOwnerClosedSignalsNobodyElse) {
  HANDLE value = nullptr;
  {
    auto timer = clock.MakeTimer();
    value = timer->get();
    clock.SetTimer(value, 1s);
  }
  std::vector<Platform::UniqueHandle> events;  // one of them gets the timer's old handle value
  do {
    events.push_back(MakeEvent(false));
  } while (events.back().get() != value && events.size() < 1000);
  clock.Advance(2s);
  for (const auto& event : events) {
    ASSERT_EQ(WaitForSingleObject(event.get(), 0), DWORD{WAIT_TIMEOUT});
  }
}

TEST_F(VirtualClockTest, FailsOnNullAndClosedHandlesAtOnce) {
  auto event = MakeEvent(true);
  const HANDLE closed = event.get();
  event.reset();
  for (const HANDLE handle : {HANDLE{nullptr}, closed}) {
    const auto result = clock.Wait(handle, 1h);
    EXPECT_EQ(result.outcome, WaitOutcome::Failed);
    EXPECT_EQ(result.code, WAIT_FAILED);
    EXPECT_EQ(result.lastError, DWORD{ERROR_INVALID_HANDLE});
  }
  EXPECT_EQ(clock.Elapsed(), 0ms);
}

TEST_F(VirtualClockTest, AWaitOfAnOutsideThreadMovesTimeItself) {
  const auto event = MakeEvent(false);
  StartWorker([&] {
    clock.Sleep(10min);
    SetEvent(event.get());
    clock.Sleep(1h);
  });
  EXPECT_EQ(clock.Wait(event.get(), 1min).outcome, WaitOutcome::TimedOut);
  EXPECT_EQ(clock.Elapsed(), 1min);
  EXPECT_EQ(clock.Wait(event.get(), std::nullopt).outcome, WaitOutcome::Signalled);
  EXPECT_EQ(clock.Elapsed(), 10min);
  clock.Sleep(2h);
  EXPECT_EQ(clock.Elapsed(), 130min);
  EXPECT_EQ(clock.Workers(), 0U);
}

TEST_F(VirtualClockTest, SaysSoWhenAWorkerDoesNotComeToRest) {
  const auto release = MakeEvent(true);
  StartWorker([&] { WaitForSingleObject(release.get(), 5000); });
  clock.SetPatience(20ms);
  try {
    clock.Advance(1s);
    ADD_FAILURE() << "time moved although a worker runs";
  } catch (const ClockStuck& stuck) {
    EXPECT_THAT(stuck.what(), HasSubstr("1 workers, 0 of them parked"));
  }
  EXPECT_EQ(clock.Elapsed(), 0ms);
  SetEvent(release.get());
  clock.SetPatience(10s);
  clock.Settle();
}

TEST_F(VirtualClockTest, WaitsDoNotSeeTheMachineSleepWhileClocksDo) {
  clock.SetTickCount(1000);
  clock.SetUtcFileTime(5'000'000);
  StartWorker([this] {
    clock.Sleep(10s);
    Note(1);
  });
  clock.Advance(1s);
  clock.JumpTicks(1h);
  clock.Advance(8s);
  EXPECT_TRUE(notes.empty());
  clock.Advance(1s);
  EXPECT_THAT(notes, ElementsAre(std::pair(1, 10s)));
  EXPECT_EQ(clock.TickCount(), 1000U + 3'600'000U + 10'000U);
  EXPECT_EQ(clock.UtcFileTime(), 5'000'000U + std::uint64_t{3'610'000} * 10'000U);
}

}  // namespace

}  // namespace Vx::Simulator
