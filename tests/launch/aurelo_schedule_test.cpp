#include "launch/aurelo_schedule.h"

#include <chrono>
#include <system_error>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/machine.h"
#include "simulator/fault_injection.h"
#include "simulator/virtual_clock.h"
#include "storage/cap_data_store.h"
#include "support/fake_console.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"

namespace Vx::Tessel::Server::Services::Orvane::Aurelo {
namespace {

using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr char kMark[] = "oobe_complete_aurelo_launched";
constexpr wchar_t kProgram[] =
    L"C:\\Users\\ann\\AppData\\Local\\Microsoft\\WindowsApps\\AureloCenter.exe";
constexpr wchar_t kScheduling[] = L"info|Scheduling Vx Aurelo launch";
constexpr wchar_t kNoNeed[] = L"info|Vx Aurelo already launched. No need to schedule";
constexpr wchar_t kNoStore[] = L"error|Failed to create CapDataStore instance";

class AureloScheduleTest : public ::testing::Test {
 protected:
  AureloScheduleTest() { console.installed[L"7C3B9E40.AureloCenter_r4x2m8kq7tn3b"] = L"Aurelo_1"; }
  // A launch that a failed test left pending would end the process with its machine.
  ~AureloScheduleTest() override { clock.Advance(5h); }

  void Schedule() { ScheduleLaunch(*Logging::LogManager::GetLogger(), timer); }
  bool Marked() const { return Storage::CapDataStore().readBool(kMark, false); }

  Tests::PrivateStore store;
  Tests::FakeConsole console;
  Simulator::VirtualClock clock;
  Simulator::FaultInjection faults;
  Platform::MachineScope scope{[this](Platform::Machine& machine) {
    console.Install(machine);
    machine.clock = &clock;
    faults.Install(machine);
  }};
  Tests::LogCapture log;
  LaunchTimer timer;
};

TEST_F(AureloScheduleTest, LaunchesOneHourLaterAndNotBefore) {
  Schedule();
  EXPECT_FALSE(timer.expired());
  clock.Advance(1h - 1ms);
  EXPECT_THAT(console.started, IsEmpty());
  EXPECT_FALSE(Marked());

  clock.Advance(1ms);
  ASSERT_THAT(console.started, SizeIs(1));
  EXPECT_EQ(console.started[0].application, kProgram);
  EXPECT_TRUE(Marked());
  EXPECT_TRUE(timer.expired());
  EXPECT_EQ(log.Lines().front(), kScheduling);
  EXPECT_EQ(log.Lines().back(), L"info|Aurelo launched");
}

TEST_F(AureloScheduleTest, LaunchesOnceHoweverManyAttemptsWereMade) {
  for (int attempt = 0; attempt < 6; ++attempt) {
    Schedule();
    clock.Advance(10min);
  }
  clock.Advance(2h);
  EXPECT_THAT(console.started, SizeIs(1));
  EXPECT_THAT(log.Lines(), Contains(kScheduling).Times(6));
  EXPECT_THAT(
      log.Lines(),
      Contains(L"info|OrvaneService::oobe_event_task() / aurelo not sending event").Times(5));
  EXPECT_EQ(clock.Workers(), 0U);
}

TEST_F(AureloScheduleTest, LaunchesAtOnceWhenTheTimerCannotBeSet) {
  faults.FailNamed("Clock.SetTimer");
  Schedule();
  clock.Settle();
  EXPECT_THAT(console.started, SizeIs(1));
  EXPECT_TRUE(log.Has(L"error|SetWaitableTimer (Aurelo) failed with error 5"));
  EXPECT_TRUE(Marked());
}

TEST_F(AureloScheduleTest, GivesUpWhenNoTimerCanBeMade) {
  faults.FailNamed("Clock.MakeTimer");
  Schedule();
  EXPECT_EQ(log.Lines().back(), L"error|CreateWaitableTimer (Aurelo) failed with error 5");
  EXPECT_EQ(clock.Workers(), 0U);
  EXPECT_FALSE(Marked());
}

TEST_F(AureloScheduleTest, DoesNotTryAFailedLaunchAgain) {
  console.notStarting = {kProgram};
  Schedule();
  clock.Advance(1h);
  EXPECT_EQ(log.Lines().back(), L"info|Aurelo not launched");
  EXPECT_TRUE(Marked());
  log.Clear();
  Schedule();
  EXPECT_THAT(log.Lines(), ElementsAre(kNoNeed));
  EXPECT_EQ(clock.Workers(), 0U);
}

TEST_F(AureloScheduleTest, NeedsTheStoreWhenItIsAskedAndWhenTheHourIsOver) {
  Schedule();
  store.Block();
  clock.Advance(1h);
  EXPECT_THAT(log.Lines(), ElementsAre(kScheduling, kNoStore));
  Schedule();
  EXPECT_THAT(log.Lines(), ElementsAre(kScheduling, kNoStore, kNoStore));
  EXPECT_THAT(console.started, IsEmpty());
}

TEST_F(AureloScheduleTest, SaysThatNoThreadCanBeMade) {
  faults.FailNamed("Threads.Start");
  EXPECT_THROW(Schedule(), std::system_error);
  EXPECT_TRUE(timer.expired());
}

}  // namespace
}  // namespace Vx::Tessel::Server::Services::Orvane::Aurelo
