#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <windows.h>

#include "events/package_event_manager.h"
#include "events/package_event_request.h"
#include "platform/windows_runtime_error.h"
#include "storage/request_manager.h"
#include "support/machine_test.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Manager = PackageCatalogEventManager;

constexpr wchar_t kFamily[] = L"App_abc";
constexpr wchar_t kInvoked[] =
    L"info|PackageUninstallingEvent invoked. Searching for PFN: App_abc, PFN received: App_abc";

std::wstring Request(const std::wstring& event, const std::wstring& action,
                     const std::wstring& params, const std::wstring& family = kFamily) {
  return L"{\"catalogEvent\":" + event + L",\"catalogAction\":" + action +
         L",\"packageFamilyName\":\"" + family + L"\",\"catalogActionParams\":" + params + L"}";
}

std::wstring Notifying(const std::wstring& event, const std::wstring& family = kFamily) {
  return Request(event, L"2", LR"({"packageFamilyName":"f","appServiceName":"s","payload":{}})",
                 family);
}

std::wstring Launching(const std::wstring& event, const std::wstring& family = kFamily) {
  return Request(event, L"1", LR"({"path":"missing.exe"})", family);
}

// A notification whose completion state the test supplies.
class FakeUninstall final : public Platform::PackageUninstall {
 public:
  explicit FakeUninstall(
      std::wstring family, std::function<bool()> complete = [] { return true; })
      : familyName(std::move(family)), isComplete(std::move(complete)) {}

  std::wstring FamilyName() const override { return familyName; }
  bool IsComplete() const override { return isComplete(); }

 private:
  std::wstring familyName;
  std::function<bool()> isComplete;
};

// The package is bob's, so that it can be uninstalled without a notification to ann's catalogs.
class PackageEventTest : public Tests::StoreTest {
 protected:
  PackageEventTest() {
    machine.users.Add(L"bob");
    machine.packages.Install({kFamily, L"App_1", {}}, L"bob");
  }
  ~PackageEventTest() override { Manager::clear_events(); }

  // Returns 0, or the code that it throws.
  std::int32_t Register(const std::wstring& request) {
    try {
      Manager::register_event(request,
                              [this](const std::wstring& text) { completed.push_back(text); });
      machine.clock.Settle();
      return 0;
    } catch (const Platform::WindowsRuntimeError& error) {
      return error.code();
    }
  }
  void Remove() {
    machine.packages.Uninstall(kFamily, L"bob", 0ms);
    machine.clock.Settle();
  }
  void Notify(
      const std::wstring& family, std::function<bool()> complete = [] { return true; }) {
    machine.packages.Notify(L"ann", FakeUninstall(family, std::move(complete)));
  }
  std::wstring Stored() const {
    return RequestManager(kServiceDocument, kPackageSubscriptions).StoredRequests();
  }

  std::vector<std::wstring> completed;
};

TEST_F(PackageEventTest, OpensTheCatalogAsTheConsoleUserUnlessItIsRefused) {
  const struct {
    std::int32_t result;
    std::wstring request;
    const char* failing = "";
  } cases[] = {
      {0, Notifying(L"5")},
      {0, Launching(L"7")},
      {0, Notifying(L"5.9")},
      {kUnknownCatalogEvent, Notifying(L"6", L"Gone")},
      {kUnknownCatalogEvent, Notifying(L"4294967301")},
      {kUnknownAction, Request(L"5", L"3", L"{}")},
      {kPackageNotInstalled, Notifying(L"5", L"Gone")},
      {kPackageNotInstalled, Notifying(L"5", L"app_ABC")},
      {Json::kJsonValueNotFound, Request(L"5", L"2", L"{}")},
      {Json::kInvalidJsonString, L"{"},
      {kConsoleUserUnavailable, Notifying(L"5"), "Sessions.ProcessIsLocalSystem"},
      {kConsoleUserUnavailable, Notifying(L"5"), "Sessions.ActiveConsoleSession"},
      {kConsoleUserUnavailable, Notifying(L"5"), "Sessions.QueryUserToken"},
      {kConsoleUserUnavailable, Notifying(L"5"), "Sessions.Impersonate"},
      {0, Notifying(L"5"), "Sessions.Revert"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.request) + c.failing);
    machine.faults.FailNamed(c.failing);
    EXPECT_EQ(Register(c.request), c.result);
    EXPECT_EQ(machine.packages.Handlers(L"ann"), c.result == 0 ? 1U : 0U);
    EXPECT_FALSE(machine.users.Acting());
    EXPECT_EQ(log.Has(L"warning|Problem in PackageUninstallingPCEvent::PackageUninstallingPCEvent"
                      L"(): reverting the impersonation failed"),
              c.failing == std::string("Sessions.Revert"));
    Manager::clear_events();
  }
}

TEST_F(PackageEventTest, NeverFiresWhereWindowsHasNoSessions) {
  machine.system.RemoveApiSet(Platform::kSessionApiSet);
  EXPECT_EQ(Register(Notifying(L"5")), 0);
  EXPECT_EQ(machine.clock.Workers(), 0U);
  EXPECT_THAT(log.Lines(),
              ElementsAre(L"error|Problem in PackageUninstallingPCEvent::"
                          L"PackageUninstallingPCEvent(): WTSQueryUserToken is not available on "
                          L"this platform"));
}

TEST_F(PackageEventTest, RunsOnceWhenAnUninstallStarts) {
  SubscribeForAppPackageEventRequest request(Notifying(L"5"));
  request.RegisterPackageEvent([this](const std::wstring& text) { completed.push_back(text); });
  request.RegisterPackageEvent(nullptr);  // still watches only once
  machine.clock.Settle();
  const auto incomplete = [] { return false; };
  Notify(L"Other", incomplete);
  EXPECT_THAT(log.Lines(), ElementsAre(L"info|PackageUninstallingEvent invoked. Searching for PFN: "
                                       L"App_abc, PFN received: Other"));
  EXPECT_THAT(Sent(), IsEmpty());

  log.Clear();
  Notify(kFamily, incomplete);
  Notify(kFamily, incomplete);
  EXPECT_THAT(Sent(), SizeIs(1));
  EXPECT_THAT(completed, ElementsAre(L""));
  EXPECT_THAT(log.Lines(), ElementsAre(kInvoked));
}

TEST_F(PackageEventTest, WaitsForTheEndOfAnUninstallAndRunsUnlessAPackageRemains) {
  static constexpr struct {
    int incompletePolls;
    bool remains;
    milliseconds takes;
    int polls;
  } kCases[] = {
      {0, false, 0ms, 1},         {1, false, 2000ms, 2}, {14, false, 28000ms, 15},
      {1000, false, 30000ms, 15}, {0, true, 0ms, 1},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(&c - kCases);
    machine.packages.Install({kFamily, L"App_1", {}}, L"bob");
    completed.clear();
    Register(Notifying(L"7"));
    log.Clear();
    const std::size_t sent = Sent().size();
    const std::uint64_t start = machine.clock.TickCount();
    int polls = 0;
    if (!c.remains) Remove();

    Notify(kFamily, [&] { return polls++ >= c.incompletePolls; });
    EXPECT_EQ(milliseconds(machine.clock.TickCount() - start), c.takes);
    EXPECT_EQ(polls, c.polls);
    std::vector<std::wstring> lines{kInvoked};
    if (c.takes == 30000ms) {
      lines.emplace_back(L"warning|PackageUninstallingEvent took more than 30 seconds to complete");
    }
    EXPECT_EQ(log.Lines(), lines);
    EXPECT_EQ(Sent().size() - sent, c.remains ? 0U : 1U);

    // An event that did not run stays armed, and one that ran does not run again.
    if (c.remains) Remove();
    Notify(kFamily);
    EXPECT_EQ(Sent().size() - sent, 1U);
    EXPECT_THAT(completed, ElementsAre(L""));
    Manager::clear_events();
  }
}

TEST_F(PackageEventTest, StaysArmedWhenItsQueryOrItsCommandFails) {
  Register(Notifying(L"7"));
  machine.faults.FailNamed("Packages.FindForAllUsers");
  Notify(kFamily);
  EXPECT_EQ(log.Lines().back(),
            L"error|PackageUninstallingEvent failed. Message: refused, Code: -2147024891");
  machine.faults.Clear();
  Remove();
  machine.timeline.SetListener([](const auto&) { throw std::runtime_error("boom"); });
  Notify(kFamily);
  EXPECT_EQ(log.Lines().back(), L"error|PackageUninstallingEvent failed. boom");
  EXPECT_THAT(completed, IsEmpty());
  machine.timeline.SetListener({});
  Notify(kFamily);
  EXPECT_THAT(completed, SizeIs(1));
}

TEST_F(PackageEventTest, EndsItsWatchersWithoutWaitingOutAStep) {
  for (int i = 0; i < 20; ++i) Register(Notifying(L"5"));
  EXPECT_EQ(machine.packages.Handlers(L"ann"), 20U);
  Manager::clear_events();
  EXPECT_EQ(machine.packages.Handlers(L"ann"), 0U);
  EXPECT_EQ(machine.clock.Workers(), 0U);
  EXPECT_EQ(machine.clock.Elapsed(), 0ms);
}

TEST_F(PackageEventTest, WatchesAStoredRequestAcrossLogOffsUntilItsCommandHasRun) {
  for (const bool loggedOff : {true, false}) {
    RegisterAppPackageEvent(Notifying(L"5"), nullptr);
    EXPECT_EQ(Stored(), L"[" + Notifying(L"5") + L"]");
    if (loggedOff) {
      Manager::clear_events();
      RegisterExistingPackageCatalogManagerRequests(nullptr);
    }
    machine.clock.Settle();
    Notify(kFamily);
    EXPECT_EQ(Stored(), L"[]");
  }
  EXPECT_THAT(Sent(), SizeIs(2));
}

TEST_F(PackageEventTest, ReplaysWhatIsStoredAndRunsLaunchesThatAreLate) {
  RequestManager list(kServiceDocument, kPackageSubscriptions);
  const std::wstring live = Notifying(L"5");
  const std::wstring unknown = Notifying(L"6");
  for (const auto& request : {Launching(L"7", L"Gone"), Notifying(L"5", L"Gone"), unknown, live}) {
    list.PersistRequest(request);
  }
  log.Clear();
  RegisterExistingPackageCatalogManagerRequests(nullptr);
  machine.clock.Settle();
  EXPECT_THAT(log.Lines(),
              Contains(L"info|RegisterExistingPackageCatalogManagerRequests - App uninstalled "
                       L"while service was not running. Executing command now")
                  .Times(2));
  EXPECT_THAT(
      log.Lines(),
      Contains(L"warning|LaunchCommand::Execute - missing.exe not trusted to launch as system")
          .Times(1));
  EXPECT_THAT(Sent(), IsEmpty());
  EXPECT_EQ(Stored(), L"[" + unknown + L"," + live + L"]");

  Notify(kFamily);
  EXPECT_THAT(Sent(), SizeIs(1));
  EXPECT_EQ(Stored(), L"[" + unknown + L"]");
}

// Registers, notifies, logs off and destroys at the same time, on real threads.
TEST(PackageEventStress, SurvivesEverythingAtOnce) {
  constexpr int kEnough = 5;
  Simulator::SimulatedMachine simulated;  // without its clock
  simulated.users.LogOn(L"ann");
  simulated.packages.Install({kFamily, L"App_1", {}}, L"ann");
  simulated.packages.Install({L"Other", L"Other_1", {}}, L"ann");
  const Platform::MachineScope scope([&](Platform::Machine& machine) {
    machine.packages = &simulated.packages;
    machine.sessions = &simulated.users;
    machine.appServices = &simulated.appServices;
  });
  std::atomic<bool> stop{false};
  std::atomic<std::size_t> done{0};
  std::atomic<int> completions{0};
  const auto count = [&](const std::wstring&) { ++completions; };

  const std::vector<std::function<void()>> jobs{
      [&] { Manager::register_event(Notifying(L"5"), count); },
      [&] { Manager::register_event(Notifying(L"7", L"Other"), count); },
      [&] { simulated.packages.Notify(L"ann", FakeUninstall(kFamily)); },
      [&] { simulated.packages.Notify(L"ann", FakeUninstall(L"Other")); },
      // Runs rarely, so that some events live long enough to fire.
      [&] {
        Sleep(20);
        Manager::clear_events();
      },
      [&] {
        SubscribeForAppPackageEventRequest request(Notifying(L"5"));
        request.RegisterPackageEvent(nullptr);
      },
  };
  std::vector<std::thread> threads;
  threads.reserve(jobs.size());
  for (const auto& job : jobs) {
    threads.emplace_back([&, job] {
      for (; !stop; Sleep(1)) job();
      ++done;
    });
  }
  const ULONGLONG begin = GetTickCount64();
  const auto lasted = [begin] { return milliseconds(GetTickCount64() - begin); };
  // A loaded machine gets more time until some events have fired.
  while (lasted() < 1500ms || (completions < kEnough && lasted() < 15s)) Sleep(10);
  stop = true;
  while (done < jobs.size() && lasted() < 30s) {
    // The last registration may have left pauses to end.
    Manager::clear_events();
    Sleep(10);
  }
  if (done < jobs.size()) {
    // A join would hang, and the threads must not outlive what they use.
    static_cast<void>(std::fputs("PackageEventStress: the threads are stuck\n", stderr));
    std::abort();
  }
  for (auto& thread : threads) thread.join();
  Manager::clear_events();
  EXPECT_EQ(simulated.packages.Handlers(L"ann"), 0U);
  EXPECT_GE(completions, kEnough);
}

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane
