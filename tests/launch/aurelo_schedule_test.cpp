#include "launch/aurelo_schedule.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/machine.h"
#include "platform/thread.h"
#include "simulator/virtual_clock.h"
#include "storage/cap_data_store.h"
#include "support/fake_console.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"

namespace Vx::Tessel::Server::Services::Orvane::Aurelo {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using Tests::FakeConsole;

constexpr char kMark[] = "oobe_complete_aurelo_launched";
constexpr wchar_t kFamily[] = L"7C3B9E40.AureloCenter_r4x2m8kq7tn3b";
constexpr wchar_t kProgram[] =
    L"C:\\Users\\ann\\AppData\\Local\\Microsoft\\WindowsApps\\AureloCenter.exe";

// A virtual clock whose timers can be refused.
class Clock final : public Platform::Clock {
 public:
  std::uint64_t TickCount() const override { return real.TickCount(); }
  std::uint64_t UtcFileTime() const override { return real.UtcFileTime(); }
  void Sleep(Duration length) override { real.Sleep(length); }
  Platform::WaitResult Wait(Platform::RawHandle handle, std::optional<Duration> length) override {
    return real.Wait(handle, length);
  }
  Platform::Result<Platform::UniqueHandle> MakeTimer() override {
    if (makeError != 0) return Platform::Result<Platform::UniqueHandle>::Failure(makeError);
    ++timers;
    return real.MakeTimer();
  }
  Platform::ErrorCode SetTimer(Platform::RawHandle timer, Duration due) override {
    return setError != 0 ? setError : real.SetTimer(timer, due);
  }
  void WorkerStarting() override { real.WorkerStarting(); }
  void WorkerStarted() override { real.WorkerStarted(); }
  void WorkerNotStarted() override { real.WorkerNotStarted(); }
  void WorkerEnded() override { real.WorkerEnded(); }

  Simulator::VirtualClock real;
  Platform::ErrorCode makeError = 0;
  Platform::ErrorCode setError = 0;
  int timers = 0;
};

class NoThreads final : public Platform::Threads {
 public:
  Platform::Result<Platform::UniqueHandle> Start(std::function<void()>) override {
    return Platform::Result<Platform::UniqueHandle>::Failure(11);
  }
};

class AureloScheduleTest : public ::testing::Test {
 protected:
  AureloScheduleTest() { console.installed[kFamily] = L"Aurelo_1"; }
  // A launch that a failed test left pending would end the process with its machine.
  ~AureloScheduleTest() override { clock.real.Advance(5h); }

  void Schedule() { ScheduleLaunch(*Logging::LogManager::GetLogger(), timer); }

  bool Marked() const { return Storage::CapDataStore().readBool(kMark, false); }

  std::ptrdiff_t Count(const wchar_t* line) const {
    const auto lines = log.Lines();
    return std::count(lines.begin(), lines.end(), line);
  }

  Tests::PrivateStore store;
  FakeConsole console;
  Clock clock;
  Platform::MachineScope scope{[this](Platform::Machine& machine) {
    console.Install(machine);
    machine.clock = &clock;
  }};
  Tests::LogCapture log;
  LaunchTimer timer;
};

TEST_F(AureloScheduleTest, LaunchesOneHourLaterAndNotBefore) {
  Schedule();
  EXPECT_FALSE(timer.expired());
  clock.real.Advance(1h - 1ms);
  EXPECT_THAT(console.started, IsEmpty());
  EXPECT_FALSE(Marked());

  clock.real.Advance(1ms);
  ASSERT_THAT(console.started, SizeIs(1));
  EXPECT_EQ(console.started[0].application, kProgram);
  EXPECT_TRUE(Marked());
  EXPECT_TRUE(timer.expired());
  EXPECT_EQ(log.Lines().front(), L"info|Scheduling Vx Aurelo launch");
  EXPECT_EQ(log.Lines().back(), L"info|Aurelo launched");
}

TEST_F(AureloScheduleTest, LaunchesOnceHoweverManyAttemptsWereMade) {
  for (int attempt = 0; attempt < 6; ++attempt) {
    Schedule();
    clock.real.Advance(10min);
  }
  EXPECT_EQ(clock.timers, 6);
  clock.real.Advance(2h);
  EXPECT_THAT(console.started, SizeIs(1));
  EXPECT_EQ(Count(L"info|Aurelo launched"), 1);
  EXPECT_EQ(Count(L"info|OrvaneService::oobe_event_task() / aurelo not sending event"), 5);
  EXPECT_EQ(clock.real.Workers(), 0U);
}

TEST_F(AureloScheduleTest, DoesNotScheduleWhatWasLaunched) {
  Storage::CapDataStore().persist(kMark, true);
  Schedule();
  EXPECT_THAT(log.Lines(), ElementsAre(L"info|Vx Aurelo already launched. No need to schedule"));
  EXPECT_EQ(clock.timers, 0);
  EXPECT_EQ(clock.real.Workers(), 0U);
}

TEST_F(AureloScheduleTest, LaunchesAtOnceWhenTheTimerCannotBeSet) {
  clock.setError = 87;
  Schedule();
  clock.real.Settle();
  EXPECT_THAT(console.started, SizeIs(1));
  EXPECT_EQ(clock.real.Elapsed(), 0ms);
  EXPECT_EQ(Count(L"error|SetWaitableTimer (Aurelo) failed with error 87"), 1);
  EXPECT_TRUE(Marked());
}

TEST_F(AureloScheduleTest, GivesUpWhenNoTimerCanBeMade) {
  clock.makeError = 8;
  Schedule();
  EXPECT_EQ(log.Lines().back(), L"error|CreateWaitableTimer (Aurelo) failed with error 8");
  EXPECT_EQ(clock.real.Workers(), 0U);
  EXPECT_FALSE(Marked());
}

TEST_F(AureloScheduleTest, DoesNotTryAFailedLaunchAgain) {
  console.notStarting = {kProgram};
  Schedule();
  clock.real.Advance(1h);
  EXPECT_EQ(log.Lines().back(), L"info|Aurelo not launched");
  EXPECT_TRUE(Marked());
  Schedule();
  EXPECT_EQ(log.Lines().back(), L"info|Vx Aurelo already launched. No need to schedule");
}

// Another launch's mark that comes between this one's scheduling and its hour.
TEST_F(AureloScheduleTest, ReadsTheMarkAnewWhenTheHourIsOver) {
  Schedule();
  Storage::CapDataStore().persist(kMark, true);
  clock.real.Advance(1h);
  EXPECT_THAT(console.started, IsEmpty());
}

TEST_F(AureloScheduleTest, AStoreThatCannotBeOpenedStopsItWithOneLine) {
  const auto folder = std::filesystem::path(store.FilePath()).parent_path().parent_path();
  std::ofstream(folder) << "a file where the store's folder would be";
  Schedule();
  EXPECT_EQ(Count(L"error|Failed to create CapDataStore instance"), 1);
  EXPECT_EQ(clock.timers, 0);
}

TEST_F(AureloScheduleTest, AStoreThatIsGoneAfterTheHourStopsTheLaunch) {
  Schedule();
  const auto folder = std::filesystem::path(store.FilePath()).parent_path();
  std::filesystem::remove(store.FilePath());
  std::filesystem::remove(folder);
  std::filesystem::remove(folder.parent_path());
  std::ofstream(folder.parent_path()) << "a file where the store's folder would be";
  clock.real.Advance(1h);
  EXPECT_EQ(Count(L"error|Failed to create CapDataStore instance"), 1);
  EXPECT_THAT(console.started, IsEmpty());
}

TEST_F(AureloScheduleTest, SaysThatNoThreadCanBeMade) {
  NoThreads threads;
  const Platform::MachineScope without(
      [&](Platform::Machine& machine) { machine.threads = &threads; });
  try {
    Schedule();
    ADD_FAILURE() << "nothing was thrown";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code(), std::errc::resource_unavailable_try_again);
  }
  EXPECT_TRUE(timer.expired());
}

}  // namespace
}  // namespace Vx::Tessel::Server::Services::Orvane::Aurelo
