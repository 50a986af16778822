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
  // Starts a thread that is counted just as Platform::Thread does it.
  void StartWorker(std::function<void()> body) {
    clock.WorkerStarting();
    threads.emplace_back([this, run = std::move(body)] {
      clock.WorkerStarted();
      run();
      clock.WorkerEnded();
    });
  }

  void Note(int what) {
    const std::lock_guard guard(mutex);
    notes.emplace_back(what, clock.Elapsed());
  }

  VirtualClock clock;
  std::mutex mutex;
  std::vector<std::pair<int, Duration>> notes;
  std::vector<std::jthread> threads;
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

// Pairs of workers: one sleeps, notes the time and signals, the other must see that very time.
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

}  // namespace

}  // namespace Vx::Simulator
