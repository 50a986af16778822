#include "launch/aurelo.h"

#include <chrono>
#include <system_error>

#include <gmock/gmock.h>

#include "storage/cap_data_store.h"
#include "support/machine_test.h"

namespace Vx::Tessel::Server::Services::Orvane::Aurelo {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr wchar_t kProgram[] =
    L"C:\\Users\\ann\\AppData\\Local\\Microsoft\\WindowsApps\\AureloCenter.exe";
constexpr wchar_t kScheduling[] = L"info|Scheduling Vx Aurelo launch";
constexpr wchar_t kNoStore[] = L"error|Failed to create CapDataStore instance";

// A scenario of the service's first boot tests the launch itself an hour later.
class AureloScheduleTest : public Tests::StoreTest {
 protected:
  AureloScheduleTest() {
    machine.packages.Install({L"7C3B9E40.AureloCenter_r4x2m8kq7tn3b", L"Aurelo_1", {}}, L"ann");
  }
  // A launch that a failed test leaves pending ends the process when its machine is destroyed.
  ~AureloScheduleTest() override { machine.Drain(); }

  void Schedule() { ScheduleLaunch(*Logging::LogManager::GetLogger(), timer); }
  bool Marked() const {
    return Storage::CapDataStore().readBool("oobe_complete_aurelo_launched", false);
  }

  LaunchTimer timer;
};

TEST_F(AureloScheduleTest, LaunchesAtOnceWhenTheTimerCannotBeSet) {
  machine.faults.FailNamed("Clock.SetTimer");
  Schedule();
  machine.clock.Settle();
  ASSERT_THAT(machine.processes.Started(), SizeIs(1));
  EXPECT_EQ(machine.processes.Started()[0].start.application, kProgram);
  EXPECT_TRUE(log.Has(L"error|SetWaitableTimer (Aurelo) failed with error 5"));
  EXPECT_TRUE(Marked());
}

TEST_F(AureloScheduleTest, GivesUpWithoutATimerOrAThread) {
  machine.faults.FailNamed("Clock.MakeTimer");
  Schedule();
  EXPECT_EQ(log.Lines().back(), L"error|CreateWaitableTimer (Aurelo) failed with error 5");
  machine.faults.FailNamed("Threads.Start");
  EXPECT_THROW(Schedule(), std::system_error);
  EXPECT_TRUE(timer.expired());
  EXPECT_EQ(machine.clock.Workers(), 0U);
  EXPECT_FALSE(Marked());
}

TEST_F(AureloScheduleTest, DoesNotTryAFailedLaunchAgain) {
  machine.processes.Refuse(kProgram, 5);
  Schedule();
  EXPECT_FALSE(timer.expired());
  machine.clock.Advance(1h);
  EXPECT_EQ(log.Lines().back(), L"info|Aurelo not launched");
  EXPECT_TRUE(Marked());
  log.Clear();
  Schedule();
  EXPECT_THAT(log.Lines(), ElementsAre(L"info|Vx Aurelo already launched. No need to schedule"));
  EXPECT_EQ(machine.clock.Workers(), 0U);
}

TEST_F(AureloScheduleTest, NeedsTheStoreWhenItIsAskedAndWhenTheHourIsOver) {
  Schedule();
  store.Block();
  machine.clock.Advance(1h);
  EXPECT_THAT(log.Lines(), ElementsAre(kScheduling, kNoStore));
  Schedule();
  EXPECT_THAT(log.Lines(), ElementsAre(kScheduling, kNoStore, kNoStore));
  EXPECT_THAT(machine.processes.Started(), IsEmpty());
}

}  // namespace
}  // namespace Vx::Tessel::Server::Services::Orvane::Aurelo
