#include "platform/machine.h"

#include "platform/clock.h"
#include "platform/kernel_objects.h"
#include "platform/thread.h"
#include "simulator/simulated_registry.h"
#include "support/test.h"

namespace Vx::Platform {
namespace {

class MachineTest : public testing::Test {
 protected:
  static std::function<void(Machine&)> Use(Registry& registry) {
    return [&registry](Machine& machine) { machine.registry = &registry; };
  }
  static void WaitFor(const UniqueHandle& event) {
    WindowsMachine().clock->Wait(event.get(), std::chrono::seconds(20));
  }

  Registry* const windows = WindowsMachine().registry;
  UniqueHandle go = *CurrentMachine().kernelObjects->MakeManualEvent(L"");
  Simulator::SimulatedRegistry outerRegistry;
  Simulator::SimulatedRegistry innerRegistry;
};

TEST_F(MachineTest, KeepsForAWorkerTheMachineThatItWasStartedUnder) {
  Thread early([&] {
    WaitFor(go);
    EXPECT_EQ(CurrentMachine().registry, windows);
  });
  const MachineScope outer(Use(outerRegistry));
  Thread worker([&] {
    WaitFor(go);
    EXPECT_EQ(CurrentMachine().registry, &outerRegistry);
    Thread([&] { EXPECT_EQ(CurrentMachine().registry, &outerRegistry); }).Join();
  });
  const MachineScope inner(Use(innerRegistry));
  CurrentMachine().kernelObjects->Signal(go.get());
  worker.Join();
  early.Join();
}

TEST_F(MachineTest, AppliesAScopeToTheWorkerThatMadeIt) {
  Thread([&] {
    {
      const MachineScope scope(Use(innerRegistry));
      EXPECT_EQ(CurrentMachine().registry, &innerRegistry);
    }
    EXPECT_EQ(CurrentMachine().registry, windows);
  }).Join();
}

TEST_F(MachineTest, DiesWhenAScopeEndsBeforeTheOneAboveIt) {
  auto lower = std::make_unique<MachineScope>(Use(outerRegistry));
  const MachineScope upper(Use(innerRegistry));
  EXPECT_DEATH(lower.reset(), "another one was installed above it");
}

TEST_F(MachineTest, DiesWhenAScopeEndsUnderARunningWorker) {
  EXPECT_DEATH(
      {
        const MachineScope scope(Use(outerRegistry));
        StartDetached([this] { WaitFor(go); });
      },
      "a worker still ran under it");
}

TEST_F(MachineTest, LetsAScopeEndRightAfterItsWorkersSaidThatTheyAreDone) {
  for (int i = 0; i < 50; ++i) {
    const UniqueHandle done = *CurrentMachine().kernelObjects->MakeManualEvent(L"");
    const MachineScope scope(Use(outerRegistry));
    StartDetached([&] { WindowsMachine().kernelObjects->Signal(done.get()); });
    WaitFor(done);
  }
}

}  // namespace
}  // namespace Vx::Platform
