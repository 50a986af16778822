#include "simulator/virtual_clock.h"

#include <atomic>
#include <functional>
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
using ::testing::HasSubstr;
using Duration = Platform::Clock::Duration;

Platform::UniqueHandle MakeEvent() {
  return Platform::UniqueHandle(CreateEventW(nullptr, FALSE, FALSE, nullptr));
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

  VirtualClock clock;
  std::vector<std::jthread> threads;
};

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
    pair.event = MakeEvent();
    pair.taken = MakeEvent();
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

TEST_F(VirtualClockTest, SaysSoWhenAWorkerDoesNotComeToRest) {
  const auto release = MakeEvent();
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
