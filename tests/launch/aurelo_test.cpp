#include "launch/aurelo.h"

#include <gmock/gmock.h>

#include "storage/cap_data_store.h"
#include "support/machine_test.h"

namespace Vx::Tessel::Server::Services::Orvane::Aurelo {
namespace {

// What an hour later and other failures bring is in scenarios/.
using AureloScheduleTest = Tests::StoreTest;

TEST_F(AureloScheduleTest, LaunchesAtOnceWhenTheTimerCannotBeSet) {
  machine.packages.Install({L"7C3B9E40.AureloCenter_r4x2m8kq7tn3b", L"Aurelo_1", {}}, L"ann");
  machine.faults.FailNamed("Clock.SetTimer");
  LaunchTimer timer;
  ScheduleLaunch(*Logging::LogManager::GetLogger(), timer);
  machine.clock.Settle();
  ASSERT_THAT(machine.processes.Started(), testing::SizeIs(1));
  EXPECT_EQ(machine.processes.Started()[0].start.application,
            L"C:\\Users\\ann\\AppData\\Local\\Microsoft\\WindowsApps\\AureloCenter.exe");
  EXPECT_TRUE(log.Has(L"error|SetWaitableTimer (Aurelo) failed with error 5"));
  EXPECT_TRUE(Storage::CapDataStore().readBool("oobe_complete_aurelo_launched", false));
}

}  // namespace
}  // namespace Vx::Tessel::Server::Services::Orvane::Aurelo
