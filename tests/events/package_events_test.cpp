

#include "events/package_event.h"
#include "events/package_event_test.h"
#include "simulator/simulated_files.h"
#include "support/test.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using Tests::FakeUninstall;
using Tests::kFamily;
using Tests::PackageRequest;
using Manager = PackageCatalogEventManager;

class CheckTrap final : public Simulator::SimulatedFiles {
 public:
  explicit CheckTrap(std::function<void()> run) : action(std::move(run)) {}
  Platform::Result<Platform::UniqueHandle> OpenReadLocked(const std::wstring& path) const override {
    if (const auto run = std::exchange(action, nullptr)) run();
    return SimulatedFiles::OpenReadLocked(path);
  }

 private:
  mutable std::function<void()> action;
};

class PackageEventTest : public Tests::PackageEventFixture {
 protected:
  void Register(const std::wstring& request) {
    Manager::register_event(request,
                            [this](const std::wstring& text) { completed.push_back(text); });
    machine.clock.Settle();
  }

  static std::wstring LaunchRequest(const std::wstring& event,
                                    const std::wstring& family = kFamily) {
    return L"{\"catalogEvent\":" + event + LR"(,"catalogAction":1,"packageFamilyName":")" + family +
           LR"(","catalogActionParams":{"path":"C:\\windows\\x.exe"}})";
  }

  std::vector<std::wstring> completed;
};

TEST_F(PackageEventTest, StaysArmedWhenItsCommandFails) {
  Register(PackageRequest(L"7"));
  Remove();
  machine.timeline.SetListener([](const auto&) { throw std::runtime_error("boom"); });
  Notify(kFamily);
  EXPECT_EQ(log.Lines().back(), L"error|PackageUninstallingEvent failed. boom");
  EXPECT_THAT(completed, IsEmpty());
  machine.timeline.SetListener({});
  Notify(kFamily);
  EXPECT_THAT(completed, SizeIs(1));
}

TEST_F(PackageEventTest, ChecksAProgramWithoutHoldingUpOtherNotifications) {
  for (const std::wstring event : {L"5", L"7"}) {
    Install();
    Register(LaunchRequest(event));
    Remove();
    log.Clear();
    std::vector<bool> free;
    const auto note = [&] {
      free.push_back(Tests::IsFree(PackageUninstallingPCEvent::uninstall_event_mux));
      free.push_back(Tests::IsFree(PackageUninstallingPCEvent::commandTurn));
    };
    const Tests::LogTrap check(L"AquireFileReadOnlyLock", 1, note);
    const Tests::LogTrap verdict(L"not trusted to launch as system", 1, note);
    Notify(kFamily);
    EXPECT_THAT(free, testing::ElementsAre(true, true, true, false));
    EXPECT_THAT(completed, SizeIs(event == L"5" ? 1 : 2));
    Manager::clear_events();
  }
}

// Three more notifications arrive while the first one's program is being checked: two for the same
// package, one for another.
TEST_F(PackageEventTest, LogsNoNotificationThatComesAfterTheOneThatRunsItsCommand) {
  Register(LaunchRequest(L"5"));
  std::vector<std::jthread> others;
  CheckTrap check([&] {
    for (const std::wstring family : {kFamily, kFamily, L"Other_abc"}) {
      others.emplace_back([this, family] { Notify(family); });
    }
    Sleep(100);
  });
  const Platform::MachineScope trap([&](Platform::Machine& all) { all.files = &check; });
  Notify(kFamily);
  others.clear();
  EXPECT_THAT(log.Lines(), testing::Contains(testing::HasSubstr(L"invoked")).Times(1));
}

TEST_F(PackageEventTest, RunsACommandThatIsDueWhileAnotherUninstallIsAwaited) {
  constexpr wchar_t kOther[] = L"Other_abc";
  machine.packages.Install({kOther, L"Other_1", {}}, L"bob");
  Register(LaunchRequest(L"5", kOther));
  Register(PackageRequest(L"7"));
  std::promise<void> awaited;
  std::promise<void> ran;
  auto hasRun = ran.get_future();
  bool inTime = false;
  std::jthread another;
  CheckTrap check([&] {
    another = std::jthread([&] {
      Notify(kFamily, [&] {
        awaited.set_value();
        inTime = hasRun.wait_for(2s) == std::future_status::ready;
        return true;
      });
    });
    awaited.get_future().wait();
  });
  const Platform::MachineScope trap([&](Platform::Machine& all) { all.files = &check; });
  const Tests::LogTrap verdict(L"not trusted to launch", 1, [&] { ran.set_value(); });
  Notify(kOther);
  another.join();
  EXPECT_TRUE(inTime);
}

TEST_F(PackageEventTest, HoldsUpNeitherSubscriptionsNorALogOffWhileItsCommandRuns) {
  for (const std::wstring event : {L"5", L"7"}) {
    Install();
    Register(PackageRequest(event));
    Remove();
    std::vector<bool> taken;
    machine.timeline.SetListener([&](const auto&) {
      for (std::mutex* mutex :
           {&PackageUninstallingPCEvent::rLock, &PackageUninstallingPCEvent::register_mux,
            &Manager::register_event_mux, &Manager::listChange}) {
        taken.push_back(Tests::IsFree(*mutex));
      }
    });
    Notify(kFamily);
    machine.timeline.SetListener({});
    EXPECT_THAT(taken, testing::ElementsAre(true, true, true, true));
    Manager::clear_events();
  }
}

TEST_F(PackageEventTest, EndsItsWatchersWithoutWaitingOutAStep) {
  for (int i = 0; i < 20; ++i) Register(PackageRequest(L"5"));
  EXPECT_EQ(machine.packages.Handlers(L"ann"), 20U);
  Manager::clear_events();
  EXPECT_EQ(machine.packages.Handlers(L"ann"), 0U);
  EXPECT_EQ(machine.clock.Workers(), 0U);
  EXPECT_EQ(machine.clock.Elapsed(), 0ms);
}

TEST_F(PackageEventTest, LeavesNothingBehindWhenNoThreadCanBeStarted) {
  const auto held = std::make_shared<int>();
  machine.faults.FailNamed("Threads.Start");
  EXPECT_THROW(Manager::register_event(PackageRequest(L"5"), [held](const std::wstring&) {}),
               std::system_error);
  EXPECT_EQ(held.use_count(), 1);
}

TEST(PackageEventStress, SurvivesEverythingAtOnce) {
  constexpr int kTurns = 100;             // per thread
  constexpr int kEnough = 5;              // fired events
  Simulator::SimulatedMachine simulated;  // its clock is not used
  simulated.users.LogOn(L"ann");
  simulated.packages.Install({kFamily, L"App_1", {}}, L"ann");
  simulated.packages.Install({L"Other", L"Other_1", {}}, L"ann");
  const Platform::MachineScope scope([&](Platform::Machine& machine) {
    machine.packages = &simulated.packages;
    machine.sessions = &simulated.users;
    machine.appServices = &simulated.appServices;
  });
  std::atomic<int> completions{0};
  const auto count = [&](const std::wstring&) { ++completions; };
  const std::vector<std::function<void()>> jobs{
      [&] { Manager::register_event(PackageRequest(L"5"), count); },
      [&] { Manager::register_event(PackageRequest(L"7", L"Other"), count); },
      [&] { simulated.packages.Notify(L"ann", FakeUninstall(kFamily)); },
      [&] { simulated.packages.Notify(L"ann", FakeUninstall(L"Other")); },
      // Rarely, so that some events live long enough to fire.
      [&] {
        Sleep(20);
        Manager::clear_events();
      },
      [&] {
        SubscribeForAppPackageEventRequest request(PackageRequest(L"5"));
        request.RegisterPackageEvent(nullptr);
      },
  };
  std::atomic<std::size_t> done{0};
  std::vector<std::jthread> threads;
  threads.reserve(std::size(jobs));
  for (const auto& job : jobs) {
    threads.emplace_back([&, job] {
      for (int turn = 0; turn < kTurns || completions < kEnough; ++turn) {
        job();
        Sleep(1);
      }
      ++done;
    });
  }
  while (done < jobs.size()) {
    Sleep(20);
    Manager::clear_events();
  }
  EXPECT_EQ(simulated.packages.Handlers(L"ann"), 0U);
  EXPECT_GE(completions, kEnough);
}

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane
