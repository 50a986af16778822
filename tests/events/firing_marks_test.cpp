#include "events/firing_marks.h"

#include "events/package_event_test.h"
#include "platform/kernel_objects.h"
#include "platform/windows_runtime_error.h"
#include "simulator/simulated_kernel_objects.h"
#include "support/test.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using Tests::FakeUninstall;
using Tests::kFamily;

std::wstring Request(int event) {
  return Tests::PackageRequest(std::to_wstring(event));
}

// Two services in one process subscribe. Only ann's catalog reports an uninstall.
class OneShotTest : public Tests::PackageEventFixture {
 protected:
  ~OneShotTest() override {
    machine.faults.Clear();
    Platform::CurrentMachine().kernelObjects->Signal(stop.get());
    PackageCatalogEventManager::clear_events();
    machine.clock.Settle();
  }

  void Subscribe(const std::wstring& request) {
    RegisterAppPackageEvent(request, &first, stop);
    machine.clock.Settle();
  }
  void Replay(const int& service) {
    RegisterExistingPackageCatalogManagerRequests(&service, stop);
    machine.clock.Settle();
  }
  void UninstallBeforeTheStoreFails() {
    machine.timeline.SetListener(
        [&](const auto&) { machine.faults.FailNamed("KernelObjects.LockMutex"); });
    Uninstall();
    machine.timeline.SetListener({});
  }
  void Uninstall(std::function<bool()> complete = [] { return true; }) {
    Remove();
    Notify(kFamily, std::move(complete));
  }

  const Platform::SharedHandle stop = MakeStopEvent();
  const int first = 0;
  const int second = 0;
};

TEST_F(OneShotTest, RunsOnceHoweverOftenItIsRegistered) {
  for (const int event : {5, 7}) {
    for (const char* time : {"first", "subscribed again"}) {
      SCOPED_TRACE(testing::Message() << event << ", " << time);
      Install();
      const std::size_t sent = Sent().size();
      Subscribe(L" " + Request(event));
      for (const int* service : {&first, &first, &second}) Replay(*service);
      EXPECT_EQ(machine.packages.Handlers(L"ann"), 2U) << "one of each service";
      Uninstall();
      EXPECT_EQ(Sent().size() - sent, 1U);
      EXPECT_EQ(Stored(), L"[]");
      PackageCatalogEventManager::clear_events();
    }
  }
}

TEST_F(OneShotTest, IsCompletedWhenTheStoreIsBack) {
  constexpr wchar_t kFailed[] = L"Failed to get DataStore";
  constexpr wchar_t kGivenUp[] =
      L"the command has run, but its request stays stored and runs again after a restart: ";
  const struct {
    const char* name;
    std::size_t failures;
    std::function<void()> atTheSecond;
    std::function<void()> then;  // empty if already completed
  } cases[] = {
      {"at the third try", 2, [&] { machine.faults.Clear(); }, {}},
      {"at the next replay", 3, [] {}, [&] { Replay(first); }},
      {"at the next notification, because its service has ended", 2,
       [&] { Platform::CurrentMachine().kernelObjects->Signal(stop.get()); },
       [&] { Notify(kFamily); }},
  };
  std::size_t runs = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Install();
    Subscribe(Request(5));
    log.Clear();
    const Tests::LogTrap trap(kFailed, 2, c.atTheSecond);
    UninstallBeforeTheStoreFails();
    machine.faults.Clear();
    EXPECT_THAT(log.Lines(), Contains(HasSubstr(kFailed)).Times(c.failures));
    EXPECT_THAT(log.Lines(), Contains(HasSubstr(kGivenUp)).Times(c.then ? 1 : 0));
    if (c.then) {
      EXPECT_EQ(Stored(), L"[" + Request(5) + L"]");
      c.then();
    }
    EXPECT_EQ(Stored(), L"[]");
    EXPECT_THAT(Sent(), SizeIs(++runs));
    PackageCatalogEventManager::clear_events();
  }
}

TEST_F(OneShotTest, IsRegisteredOnceForEachUserHoweverOftenUsersLogOn) {
  Subscribe(L" " + Request(5));
  for (const wchar_t* user : {L"ann", L"bob", L"ann", L"bob"}) {
    machine.users.LogOn(user);
    Replay(first);
  }
  EXPECT_EQ(machine.packages.Handlers(L"ann"), 1U);
  EXPECT_EQ(machine.packages.Handlers(L"bob"), 1U);
  EXPECT_EQ(machine.clock.Workers(), 2U);
  // A replay that cannot watch, or whose user is unknown, does not end another user's watch.
  for (const char* call : {"PackageCatalog.AddUninstalling", "Sessions.SidOf"}) {
    machine.faults.FailNamed(call);
    Replay(first);
    machine.faults.Clear();
    EXPECT_GE(machine.packages.Handlers(L"bob"), 1U);
  }
  Notify(kFamily);
  EXPECT_THAT(Sent(), SizeIs(1));
}

// The marks are lost when the process ends. The stored requests remain.
TEST_F(OneShotTest, RunsAgainAfterARestartOnlyIfItWasNotCompleted) {
  for (const bool completed : {true, false}) {
    const std::size_t sent = Sent().size();
    Install();
    Subscribe(Request(5));
    if (completed) {
      Uninstall();
    } else {
      UninstallBeforeTheStoreFails();
    }
    machine.faults.Clear();
    PackageCatalogEventManager::clear_events();
    FiringMarks::Forget(Request(5), FiringMarks::Of(Request(5)));
    Install();
    Replay(first);
    Uninstall();
    EXPECT_EQ(Sent().size() - sent, completed ? 1U : 2U);
    EXPECT_EQ(Stored(), L"[]");
    PackageCatalogEventManager::clear_events();
  }
}

// The stored request has run and only awaits completion, so the client's request is new.
TEST_F(OneShotTest, IsSubscribedAnewAlthoughItCouldNotBeCompleted) {
  Subscribe(Request(5));
  UninstallBeforeTheStoreFails();
  machine.faults.FailNamed("FileHandle.Write");
  Install();
  EXPECT_THROW(Subscribe(Request(5)), std::runtime_error);
  machine.faults.Clear();
  Subscribe(Request(5));
  EXPECT_THROW(Subscribe(Request(5)), Platform::WindowsRuntimeError);
  machine.clock.Advance(std::chrono::hours(1));
  EXPECT_EQ(Stored(), L"[" + Request(5) + L"]");
  Uninstall();
  EXPECT_THAT(Sent(), SizeIs(2));
  EXPECT_EQ(Stored(), L"[]");
}

// The second request fires while a replay handles the first.
TEST_F(OneShotTest, DoesNotRunAgainForAListThatWasReadBefore) {
  for (const bool gone : {false, true}) {
    RequestManager(kServiceDocument, kPackageSubscriptions).PersistRequest(Request(6));
    Install();
    Subscribe(Request(5));
    const std::size_t sent = Sent().size();
    log.Clear();
    {
      const Tests::LogTrap fire(L"failed to register request", 1, [&] {
        Notify(kFamily);
        if (gone) machine.packages.Uninstall(kFamily, L"bob", std::chrono::milliseconds(0));
      });
      Replay(second);
    }
    EXPECT_EQ(Sent().size() - sent, 1U);
    Uninstall();
    EXPECT_EQ(Sent().size() - sent, 1U);
    EXPECT_EQ(Stored(), L"[" + Request(6) + L"]");
    EXPECT_THAT(log.Lines(), Contains(HasSubstr(L"failed to register")).Times(1));
    RequestManager(kServiceDocument, kPackageSubscriptions).CompleteRequest(Request(6));
    PackageCatalogEventManager::clear_events();
  }
}

class UnlockTrap final : public Simulator::SimulatedKernelObjects {
 public:
  explicit UnlockTrap(std::function<void()> run) : action(std::move(run)) {}
  Platform::ErrorCode UnlockMutex(Platform::RawHandle mutex) override {
    const Platform::ErrorCode error = SimulatedKernelObjects::UnlockMutex(mutex);
    if (const auto run = std::exchange(action, nullptr)) run();
    return error;
  }

 private:
  std::function<void()> action;
};

// A client repeats the subscription just after a replay has found it missing from the store.
TEST_F(OneShotTest, WatchesWhatIsSubscribedAgainWhileAReplayFindsItGone) {
  RequestManager(kServiceDocument, kPackageSubscriptions).PersistRequest(Request(6));
  Subscribe(Request(5));
  std::jthread client;
  UnlockTrap kernelObjects([&] {
    std::promise<void> subscribed;
    auto done = subscribed.get_future();
    client = std::jthread([this, said = std::move(subscribed)]() mutable {
      RegisterAppPackageEvent(Request(5), &first);
      said.set_value();
    });
    done.wait_for(std::chrono::milliseconds(200));
  });
  std::optional<Platform::MachineScope> trapped;
  {
    const Tests::LogTrap fire(L"failed to register request", 1, [&] {
      Notify(kFamily);
      trapped.emplace(
          [&](Platform::Machine& platform) { platform.kernelObjects = &kernelObjects; });
    });
    Replay(second);
  }
  client.join();
  machine.clock.Settle();
  EXPECT_THAT(Sent(), SizeIs(1));
  Notify(kFamily);
  EXPECT_THAT(Sent(), SizeIs(2));
  EXPECT_EQ(Stored(), L"[" + Request(6) + L"]");
  PackageCatalogEventManager::clear_events();
}

// During the replay, another request in the list is completed. Then the store fails, or another
// service replaces the list with an object.
TEST_F(OneShotTest, IsWatchedAlsoWhenTheStoreCannotSayWhetherItIsStored) {
  const auto replaceList = [](const wchar_t* text) {
    Storage::CapDataStore().mergeMember(kServiceDocument, kPackageSubscriptions,
                                        Storage::BsonElement::Text(text));
  };
  for (const bool replaced : {false, true}) {
    replaceList(L"[]");
    RequestManager(kServiceDocument, kPackageSubscriptions).PersistRequest(Request(6));
    Subscribe(Request(7));
    Subscribe(Request(5));
    PackageCatalogEventManager::clear_events(&first);
    const auto fired = FiringMarks::Of(Request(7));
    const std::size_t sent = Sent().size();
    {
      const Tests::LogTrap complete(L"failed to register request", 1, [&] {
        FiringMarks::Forget(Request(7), fired);
        if (replaced) {
          replaceList(L"{}");
        } else {
          machine.faults.FailNamed("KernelObjects.LockMutex");
        }
      });
      Replay(first);
    }
    machine.faults.Clear();
    Notify(kFamily);
    EXPECT_EQ(Sent().size(), sent + 1);
    EXPECT_THAT(Stored(), Not(HasSubstr(Request(5))));
    PackageCatalogEventManager::clear_events();
  }
}

// A replay may read the list after a request has been stored but before it has been marked.
TEST(FiringMarksTest, AStoredRequestHasOneMarkUntilItHasRunOrIsTakenBack) {
  const auto ofReplay = FiringMarks::Of(L"a request");
  EXPECT_EQ(FiringMarks::Renew(L"a request"), ofReplay);
  FiringMarks::Forget(L"a request", ofReplay);
  EXPECT_FALSE(ofReplay->RunOnce([] { ADD_FAILURE() << "ran for a request that was withdrawn"; }));
  const auto next = FiringMarks::Renew(L"a request");
  EXPECT_TRUE(next->RunOnce([] {}));
  EXPECT_NE(FiringMarks::Renew(L"a request"), next);
  FiringMarks::Forget(L"a request", FiringMarks::Of(L"a request"));
}

TEST_F(OneShotTest, FinishesWhenASessionEndsWhileItWaitsForTheUninstall) {
  Subscribe(Request(7));
  int polls = 0;
  Uninstall([&] {
    if (++polls == 2) PackageCatalogEventManager::clear_events(&first);
    return polls == 4;
  });
  EXPECT_EQ(machine.packages.Handlers(L"ann"), 0U);
  EXPECT_EQ(polls, 4);
  EXPECT_THAT(Sent(), SizeIs(1));
  EXPECT_EQ(Stored(), L"[]");
}

TEST_F(OneShotTest, RunsWhenItsSessionEndsWhileItWaitsForAnotherCommand) {
  Subscribe(Request(5));
  std::promise<void> arrived;
  const FakeUninstall uninstall(
      kFamily, [] { return true; }, [&] { arrived.set_value(); });
  std::jthread system;
  {
    const std::lock_guard another(PackageUninstallingPCEvent::uninstall_event_mux);
    system = std::jthread([&] { machine.packages.Notify(L"ann", uninstall); });
    arrived.get_future().wait_for(std::chrono::milliseconds(200));
    PackageCatalogEventManager::clear_events(&first);
  }
  system.join();
  EXPECT_THAT(Sent(), SizeIs(1));
  EXPECT_EQ(Stored(), L"[]");
}

// The command runs until the replay, which finds the package gone, has ended.
TEST_F(OneShotTest, IsNotWaitedForByALogon) {
  Subscribe(Request(5));
  machine.packages.Uninstall(kFamily, L"bob", std::chrono::milliseconds(0));
  machine.clock.Settle();
  std::jthread logon;
  std::future_status replay{};
  machine.timeline.SetListener([&](const auto&) {
    std::packaged_task<void()> task(
        [&] { RegisterExistingPackageCatalogManagerRequests(&second, stop); });
    const auto done = task.get_future();
    logon = std::jthread(std::move(task));
    replay = done.wait_for(std::chrono::seconds(1));
  });
  Notify(kFamily);
  logon.join();
  machine.timeline.SetListener({});
  EXPECT_EQ(replay, std::future_status::ready);
  EXPECT_THAT(Sent(), SizeIs(1));
  EXPECT_EQ(Stored(), L"[]");
}

TEST(FiringMark, RunsAgainAfterARunThatThrewUnlessItsRequestIsGone) {
  for (const bool gone : {false, true}) {
    FiringMark mark;
    EXPECT_THROW(mark.RunOnce([&] {
      if (gone) mark.Retire();
      throw std::runtime_error("boom");
    }),
                 std::runtime_error);
    int runs = 0;
    std::jthread other;
    EXPECT_EQ(mark.RunOnce([&] {
      other = std::jthread([&] { EXPECT_FALSE(mark.RunOnce([&] { ++runs; })); });
      ++runs;
    }),
              !gone);
    EXPECT_FALSE(mark.RunOnce([&] { ++runs; }));
    EXPECT_EQ(runs, gone ? 0 : 1);
  }
}

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane
