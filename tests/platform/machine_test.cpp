#include "platform/machine.h"

#include <gtest/gtest.h>

#include <memory>

#include "platform/clock.h"
#include "platform/kernel_objects.h"
#include "platform/thread.h"

namespace Vx::Platform {
namespace {

// Never asked for anything: the tests look at which clock is in place.
class NoClock : public Clock {
 public:
  std::uint64_t TickCount() const override { return 0; }
  std::uint64_t UtcFileTime() const override { return 0; }
  void Sleep(Duration) override {}
  WaitResult Wait(RawHandle handle, std::optional<Duration> length) override {
    return WindowsMachine().clock->Wait(handle, length);
  }
  Result<UniqueHandle> MakeTimer() override { return Result<UniqueHandle>::Failure(1); }
  ErrorCode SetTimer(RawHandle, Duration) override { return 1; }
  void WorkerStarting() override {}
  void WorkerEnded() override {}
};

class MachineTest : public testing::Test {
 protected:
  std::function<void(Machine&)> Use(Clock& clock) {
    return [&clock](Machine& machine) { machine.clock = &clock; };
  }

  UniqueHandle go = *CurrentMachine().kernelObjects->MakeManualEvent(L"");
  NoClock outerClock;
  NoClock innerClock;
};

void WaitFor(const UniqueHandle& event) {
  WindowsMachine().clock->Wait(event.get(), std::chrono::seconds(20));
}

TEST_F(MachineTest, HasEveryCapabilityOfTheRealWindows) {
  const Machine& machine = WindowsMachine();
  const auto* members = reinterpret_cast<void* const*>(&machine);
  for (std::size_t i = 0; i < sizeof machine / sizeof(void*); ++i) {
    EXPECT_NE(members[i], nullptr) << "capability number " << i;
  }
}

TEST_F(MachineTest, GivesTheOneBeforeBackWhenAScopeEnds) {
  const MachineScope outer(Use(outerClock));
  {
    const MachineScope inner(Use(innerClock));
    EXPECT_EQ(CurrentMachine().clock, &innerClock);
    EXPECT_EQ(CurrentMachine().files, WindowsMachine().files);
  }
  EXPECT_EQ(CurrentMachine().clock, &outerClock);
}

TEST_F(MachineTest, KeepsForAWorkerTheMachineThatItWasStartedUnder) {
  Clock* seenByWorker = nullptr;
  Clock* seenByItsWorker = nullptr;
  Clock* seenUnderNoScope = nullptr;
  Thread early([&] {
    WaitFor(go);
    seenUnderNoScope = CurrentMachine().clock;
  });
  {
    const MachineScope outer(Use(outerClock));
    Thread worker([&] {
      WaitFor(go);
      seenByWorker = CurrentMachine().clock;
      Thread([&] { seenByItsWorker = CurrentMachine().clock; }).Join();
    });
    {
      const MachineScope inner(Use(innerClock));
      CurrentMachine().kernelObjects->Signal(go.get());
      worker.Join();
      early.Join();
    }
  }
  EXPECT_EQ(seenByWorker, &outerClock);
  EXPECT_EQ(seenByItsWorker, &outerClock);
  EXPECT_EQ(seenUnderNoScope, WindowsMachine().clock);
}

TEST_F(MachineTest, AppliesAScopeToTheWorkerThatMadeIt) {
  Clock* within = nullptr;
  Clock* after = nullptr;
  Thread([&] {
    {
      const MachineScope scope(Use(innerClock));
      within = CurrentMachine().clock;
    }
    after = CurrentMachine().clock;
  }).Join();
  EXPECT_EQ(within, &innerClock);
  EXPECT_EQ(after, WindowsMachine().clock);
}

TEST_F(MachineTest, DiesWhenAScopeEndsBeforeTheOneAboveIt) {
  EXPECT_DEATH(
      {
        auto lower = std::make_unique<MachineScope>(Use(outerClock));
        const MachineScope upper(Use(innerClock));
        lower.reset();
      },
      "another one was installed above it");
}

TEST_F(MachineTest, DiesWhenAScopeEndsUnderARunningWorker) {
  EXPECT_DEATH(
      {
        const MachineScope scope(Use(outerClock));
        StartDetached([this] { WaitFor(go); });
      },
      "a worker still ran under it");
}

TEST_F(MachineTest, LetsAScopeEndRightAfterItsWorkersSaidThatTheyAreDone) {
  for (int i = 0; i < 50; ++i) {
    const UniqueHandle done = *CurrentMachine().kernelObjects->MakeManualEvent(L"");
    const MachineScope scope(Use(outerClock));
    StartDetached([&] { WindowsMachine().kernelObjects->Signal(done.get()); });
    WaitFor(done);
  }
}

}  // namespace
}  // namespace Vx::Platform
