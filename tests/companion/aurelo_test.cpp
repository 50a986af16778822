#include "companion/aurelo.h"

#include "storage/cap_data_store.h"
#include "support/machine_test.h"
#include "support/test.h"

namespace Vx::Tessel::Server::Services::Orvane::Aurelo {
namespace {

using AureloScheduleTest = Tests::StoreTest;

// Without a mark, each service start would launch the app again while the store is inaccessible.
TEST_F(AureloScheduleTest, LaunchesOnlyWhatItCouldMark) {
  machine.packages.Install({L"7C3B9E40.AureloCenter_r4x2m8kq7tn3b", L"Aurelo_1", {}}, L"ann");
  const auto start = [&] {
    LaunchTimer timer;
    ScheduleLaunch(*Logging::LogManager::GetLogger(), timer);
    machine.clock.Advance(std::chrono::seconds(3601));
    return machine.processes.Started().size();
  };
  machine.faults.FailNamed("FileHandle.Write");
  EXPECT_EQ(start(), 0U);
  machine.faults.Clear();
  Storage::CapDataStore().persist("other", true);
  {
    const Platform::UniqueHandle unread = Platform::AdoptFile(
        CreateFileW(store.FilePath().c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_NE(unread, nullptr);
    EXPECT_EQ(start(), 0U);
  }
  EXPECT_THAT(log.Lines(),
              testing::Contains(testing::HasSubstr(L"Aurelo not launched, ")).Times(2));
  EXPECT_EQ(start(), 1U);
  EXPECT_EQ(start(), 1U);
}

TEST_F(AureloScheduleTest, IsNotLaunchedAgainWhenItsMarkCannotBeReadForAMoment) {
  machine.packages.Install({L"7C3B9E40.AureloCenter_r4x2m8kq7tn3b", L"Aurelo_1", {}}, L"ann");
  Storage::CapDataStore().persist("oobe_complete_aurelo_launched", true);
  std::size_t call = 0;
  for (std::size_t calls = 1; call <= calls && !HasFailure(); ++call) {
    LaunchTimer timer;
    machine.faults.FailNamed("DataProtection.Unprotect");
    ScheduleLaunch(*Logging::LogManager::GetLogger(), timer);
    machine.faults.FailCall(call);
    machine.clock.Advance(std::chrono::seconds(3601));
    calls = machine.faults.Calls().size();
    machine.faults.Clear();
    EXPECT_EQ(machine.processes.Started().size(), 0U) << call;
  }
  EXPECT_GT(call, 5U);
}

}  // namespace
}  // namespace Vx::Tessel::Server::Services::Orvane::Aurelo
