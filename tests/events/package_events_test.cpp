#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

#include "events/fake_app_services.h"
#include "events/fake_package_catalog.h"
#include "events/package_event_manager.h"
#include "events/package_event_request.h"
#include "platform/hresult_error.h"
#include "platform/machine.h"
#include "simulator/virtual_clock.h"
#include "storage/request_manager.h"
#include "support/fake_console.h"
#include "support/handle_gauge.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using namespace std::chrono_literals;
using Platform::Machine;
using Platform::MachineScope;
using std::chrono::milliseconds;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Tests::FakeAppServices;
using Tests::FakeConsole;
using Tests::FakePackageCatalog;
using Tests::FakeUninstall;
using Tests::LogCapture;
using Manager = PackageCatalogEventManager;

constexpr wchar_t kFamily[] = L"App_abc";
constexpr wchar_t kInvoked[] =
    L"info|PackageUninstallingEvent invoked. Searching for PFN: App_abc, PFN received: App_abc";
constexpr wchar_t kTookTooLong[] =
    L"warning|PackageUninstallingEvent took more than 30 seconds to complete";
constexpr wchar_t kRunningLate[] =
    L"info|RegisterExistingPackageCatalogManagerRequests - App uninstalled while service was not "
    L"running. Executing command now";
constexpr wchar_t kNotTrusted[] =
    L"warning|LaunchCommand::Execute - missing.exe not trusted to launch as system";

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

winrt::hresult Registering(const std::wstring& request) {
  try {
    Manager::register_event(request, nullptr);
    return 0;
  } catch (const winrt::hresult_error& error) {
    return error.code();
  }
}

class PackageEventTest : public testing::Test {
 protected:
  ~PackageEventTest() override { Manager::clear_events(); }

  void Register(const std::wstring& request) {
    Manager::register_event(request,
                            [this](const std::wstring& text) { completed.push_back(text); });
    clock.Settle();
  }

  Simulator::VirtualClock clock;
  FakeConsole console;
  FakePackageCatalog packages;
  FakeAppServices services;
  MachineScope scope{[this](Machine& machine) {
    console.Install(machine);
    machine.clock = &clock;
    machine.packages = &packages;
    machine.appServices = &services;
  }};
  LogCapture log;
  std::vector<std::wstring> completed;
};

TEST_F(PackageEventTest, RefusesWhatItCannotWatch) {
  packages.Install(kFamily);
  const auto no = [](FakeConsole&) {};
  const struct {
    const char* name;
    std::wstring request;
    std::function<void(FakeConsole&)> breakIt;
    winrt::hresult result;
  } cases[] = {
      {"event 5", Notifying(L"5"), no, 0},
      {"event 7", Launching(L"7"), no, 0},
      {"truncated", Notifying(L"5.9"), no, 0},
      {"an unknown event", Notifying(L"6"), no, kUnknownCatalogEvent},
      {"an event beyond any number", Notifying(L"4294967301"), no, kUnknownCatalogEvent},
      {"an unknown event of no package", Notifying(L"6", L"Gone"), no, kUnknownCatalogEvent},
      {"an unknown action", Request(L"5", L"3", L"{}"), no, kUnknownAction},
      {"a package that is not there", Notifying(L"5", L"Gone"), no, kPackageNotInstalled},
      {"another case of letters", Notifying(L"5", L"app_ABC"), no, kPackageNotInstalled},
      {"no parameters", Request(L"5", L"2", L"{}"), no, Json::kJsonValueNotFound},
      {"no family", LR"({"catalogEvent":5,"catalogAction":1})", no, Json::kJsonValueNotFound},
      {"no JSON", L"{", no, Json::kInvalidJsonString},
      {"nobody at the console", Notifying(L"5"), [](FakeConsole& c) { c.session = 0xFFFFFFFF; },
       kConsoleUserUnavailable},
      {"token refused", Notifying(L"5"), [](FakeConsole& c) { c.FailCall(0); },
       kConsoleUserUnavailable},
      {"impersonation refused", Notifying(L"5"), [](FakeConsole& c) { c.FailCall(1); },
       kConsoleUserUnavailable},
      {"revert refused", Notifying(L"5"), [](FakeConsole& c) { c.FailCall(2); }, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    console.session = 1;
    console.FailCall(FakeConsole::kNever);
    c.breakIt(console);
    EXPECT_EQ(Registering(c.request), c.result);
    clock.Settle();
    EXPECT_EQ(packages.Handlers(), c.result == 0 ? 1U : 0U);
    Manager::clear_events();
  }
  EXPECT_EQ(console.impersonations, console.reverts);
}

TEST_F(PackageEventTest, OpensTheCatalogAsTheConsoleUser) {
  packages.Install(kFamily);
  bool acting = false;
  packages.onOpen = [&] { acting = console.acting; };
  Register(Notifying(L"5"));
  EXPECT_TRUE(acting);
  EXPECT_FALSE(console.acting);
}

TEST_F(PackageEventTest, NeverFiresWhereWindowsHasNoSessions) {
  console.sessionApi = false;
  Register(Notifying(L"5"));
  EXPECT_EQ(clock.Workers(), 0U);
  EXPECT_EQ(packages.Handlers(), 0U);
  EXPECT_THAT(log.Lines(),
              ElementsAre(L"error|Problem in PackageUninstallingPCEvent::"
                          L"PackageUninstallingPCEvent(): WTSQueryUserToken is not available on "
                          L"this platform"));
}

TEST_F(PackageEventTest, WatchesOnceHoweverOftenItIsRegistered) {
  packages.Install(kFamily);
  SubscribeForAppPackageEventRequest request(Notifying(L"5"));
  request.RegisterPackageEvent(nullptr);
  request.RegisterPackageEvent(nullptr);
  clock.Settle();
  EXPECT_EQ(packages.Handlers(), 1U);
}

TEST_F(PackageEventTest, RunsOnceWhenAnUninstallStarts) {
  packages.Install(kFamily);
  Register(Notifying(L"5"));
  packages.Notify(FakeUninstall(L"Other", [] { return false; }));
  EXPECT_THAT(log.Lines(), ElementsAre(L"info|PackageUninstallingEvent invoked. Searching for PFN: "
                                       L"App_abc, PFN received: Other"));
  EXPECT_THAT(completed, IsEmpty());

  log.Clear();
  packages.Notify(FakeUninstall(kFamily, [] { return false; }));
  packages.Notify(FakeUninstall(kFamily, [] { return false; }));
  EXPECT_THAT(services.Sent(), SizeIs(1));
  EXPECT_THAT(completed, ElementsAre(L""));
  EXPECT_THAT(log.Lines(), ElementsAre(kInvoked));
}

TEST_F(PackageEventTest, WaitsForTheEndOfAnUninstallAndLooksWhatIsLeft) {
  static constexpr struct {
    const char* name;
    int incompletePolls;
    bool remains;
    milliseconds takes;
    int polls;
  } kCases[] = {
      {"complete at once", 0, false, 0ms, 1},
      {"complete at the second look", 1, false, 2000ms, 2},
      {"complete at the last look", 14, false, 28000ms, 15},
      {"complete too late", 15, false, 30000ms, 15},
      {"never complete", 1000, false, 30000ms, 15},
      {"somebody else has it still", 0, true, 0ms, 1},
      {"never complete and still there", 1000, true, 30000ms, 15},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    packages.Install(kFamily, 2);
    completed.clear();
    Register(Notifying(L"7"));
    log.Clear();
    const std::size_t sent = services.Sent().size();
    const std::uint64_t start = clock.TickCount();
    int polls = 0;
    const FakeUninstall uninstall(kFamily, [&] { return polls++ >= c.incompletePolls; });
    if (!c.remains) packages.Uninstall(kFamily);

    packages.Notify(uninstall);
    EXPECT_EQ(milliseconds(clock.TickCount() - start), c.takes);
    EXPECT_EQ(polls, c.polls);
    EXPECT_EQ(services.Sent().size() - sent, c.remains ? 0U : 1U);
    EXPECT_EQ(completed.size(), c.remains ? 0U : 1U);
    std::vector<std::wstring> lines{kInvoked};
    if (c.takes == 30000ms) lines.emplace_back(kTookTooLong);
    EXPECT_EQ(log.Lines(), lines);
    Manager::clear_events();
  }
}

TEST_F(PackageEventTest, StaysArmedWhileAPackageRemains) {
  packages.Install(kFamily);
  Register(Notifying(L"7"));
  packages.Notify(FakeUninstall(kFamily));
  packages.Uninstall(kFamily);
  packages.Notify(FakeUninstall(kFamily));
  packages.Notify(FakeUninstall(kFamily));
  EXPECT_THAT(services.Sent(), SizeIs(1));
}

TEST_F(PackageEventTest, StaysArmedWhenItsCommandFails) {
  packages.Install(kFamily);
  Register(Notifying(L"5"));
  services.onSend = [] { throw std::runtime_error("boom"); };
  packages.Notify(FakeUninstall(kFamily));
  EXPECT_EQ(log.Lines().back(), L"error|PackageUninstallingEvent failed. boom");
  EXPECT_THAT(completed, IsEmpty());

  services.onSend = [] {};
  packages.Notify(FakeUninstall(kFamily));
  EXPECT_THAT(completed, SizeIs(1));
}

TEST_F(PackageEventTest, LogsAQueryAndAHandlerThatAreRefused) {
  packages.Install(kFamily);
  Register(Notifying(L"7"));
  packages.queryError = 5;
  packages.Notify(FakeUninstall(kFamily));
  EXPECT_EQ(log.Lines().back(), L"error|PackageUninstallingEvent failed. Message: , Code: 5");

  packages.queryError = 0;
  packages.addError = 6;
  Register(Notifying(L"5"));
  EXPECT_EQ(log.Lines().back(), L"error|PackageUninstallingEvent failed. Message: , Code: 6");
}

TEST_F(PackageEventTest, EndsItsWatchersWithoutWaitingOutAStep) {
  packages.Install(kFamily);
  for (int i = 0; i < 20; ++i) Register(Notifying(L"5"));
  EXPECT_EQ(packages.Handlers(), 20U);
  Manager::clear_events();
  EXPECT_EQ(packages.Handlers(), 0U);
  EXPECT_EQ(clock.Workers(), 0U);
  EXPECT_EQ(clock.Elapsed(), 0ms);
  packages.Notify(FakeUninstall(kFamily));
  EXPECT_THAT(services.Sent(), IsEmpty());
}

TEST_F(PackageEventTest, ANotificationMayOutliveItsEvent) {
  packages.Install(kFamily);
  Register(Notifying(L"7"));
  packages.Uninstall(kFamily);
  int polls = 0;
  const FakeUninstall uninstall(kFamily, [&] {
    if (++polls == 3) Manager::clear_events();
    return false;
  });
  packages.Notify(uninstall);
  EXPECT_EQ(polls, 3);
  EXPECT_THAT(services.Sent(), IsEmpty());
  EXPECT_THAT(log.Lines(), ElementsAre(kInvoked));
}

TEST_F(PackageEventTest, LeavesNoHandleOpen) {
  packages.Install(kFamily);
  Register(Notifying(L"5"));
  Manager::clear_events();
  const auto before = Tests::HandleGauge();
  for (int i = 0; i < 50; ++i) {
    Register(Notifying(L"5"));
    Registering(Notifying(L"5", L"Gone"));
    Manager::clear_events();
  }
  // Values are four apart, and the clock keeps some handles of its own.
  EXPECT_LE(Tests::HandleGauge(), before + 100);
}

class StoredPackageEventTest : public PackageEventTest {
 protected:
  std::wstring Stored() const {
    return RequestManager(kServiceDocument, kPackageSubscriptions).StoredRequests();
  }

  Tests::PrivateStore store;
};

TEST_F(StoredPackageEventTest, TakesARequestOffTheListWhenItsCommandHasRun) {
  packages.Install(kFamily);
  RegisterAppPackageEvent(Notifying(L"5"));
  clock.Settle();
  EXPECT_EQ(Stored(), L"[" + Notifying(L"5") + L"]");
  packages.Notify(FakeUninstall(kFamily));
  EXPECT_EQ(Stored(), L"[]");
}

TEST_F(StoredPackageEventTest, KeepsARequestWhoseRegistrationFailed) {
  EXPECT_THROW(RegisterAppPackageEvent(Launching(L"5")), winrt::hresult_error);
  EXPECT_EQ(Stored(), L"[" + Launching(L"5") + L"]");
  RemoveAppPackageEvent(Launching(L"5"));
  EXPECT_EQ(Stored(), L"[]");
}

TEST_F(StoredPackageEventTest, ReplaysWhatIsStoredAndRunsLaunchesThatAreLate) {
  packages.Install(kFamily);
  RequestManager list(kServiceDocument, kPackageSubscriptions);
  const std::wstring live = Notifying(L"5");
  const std::wstring unknown = Notifying(L"6");
  for (const auto& request : {Launching(L"7", L"Gone"), Notifying(L"5", L"Gone"), unknown, live}) {
    list.PersistRequest(request);
  }
  log.Clear();
  RegisterExistingPackageCatalogManagerRequests();
  clock.Settle();

  EXPECT_THAT(log.Lines(), Contains(kRunningLate).Times(2));
  EXPECT_THAT(log.Lines(), Contains(kNotTrusted).Times(1));
  EXPECT_THAT(services.Sent(), IsEmpty());
  EXPECT_EQ(Stored(), L"[" + unknown + L"," + live + L"]");

  packages.Notify(FakeUninstall(kFamily));
  EXPECT_THAT(services.Sent(), SizeIs(1));
  EXPECT_EQ(Stored(), L"[" + unknown + L"]");
}

TEST_F(StoredPackageEventTest, WatchesAgainAfterALogOff) {
  packages.Install(kFamily);
  RegisterAppPackageEvent(Notifying(L"5"));
  Manager::clear_events();
  RegisterExistingPackageCatalogManagerRequests();
  clock.Settle();
  packages.Notify(FakeUninstall(kFamily));
  EXPECT_THAT(services.Sent(), SizeIs(1));
  EXPECT_EQ(Stored(), L"[]");
}

TEST_F(StoredPackageEventTest, SkipsALateRequestThatCannotBeRead) {
  Manager::execute_command(L"{");
  Manager::execute_command(Notifying(L"5"));
  EXPECT_THAT(log.Lines(), IsEmpty());
  Manager::execute_command(Launching(L"5"));
  EXPECT_THAT(log.Lines(), Contains(kNotTrusted));
}

// Registration, notification, log-off and destruction at the same time, on real threads.
TEST(PackageEventStress, SurvivesEverythingAtOnce) {
  constexpr milliseconds kLength{1500};
  constexpr milliseconds kPatience{30000};
  constexpr int kEnough = 5;
  FakePackageCatalog packages;
  FakeAppServices services;
  packages.Install(kFamily);
  packages.Install(L"Other");
  const MachineScope scope([&](Machine& machine) {
    machine.packages = &packages;
    machine.appServices = &services;
  });
  std::atomic<bool> stop{false};
  std::atomic<int> done{0};
  std::atomic<int> rounds{0};
  std::atomic<int> completions{0};

  const std::vector<std::function<void()>> jobs{
      [&] {
        Manager::register_event(Notifying(L"5"), [&](const std::wstring&) { ++completions; });
      },
      [&] {
        Manager::register_event(Notifying(L"7", L"Other"),
                                [&](const std::wstring&) { ++completions; });
      },
      [&] { packages.Notify(FakeUninstall(kFamily)); },
      // Never complete: only log-off ends this one's pauses early enough.
      [&] { packages.Notify(FakeUninstall(L"Other", [] { return false; })); },
      // Now and then only, so that some events live long enough to fire.
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
      while (!stop) {
        job();
        ++rounds;
        Sleep(1);
      }
      ++done;
    });
  }
  const ULONGLONG begin = GetTickCount64();
  const ULONGLONG deadline = begin + static_cast<ULONGLONG>(kPatience.count());
  const auto lasted = [&] { return milliseconds(GetTickCount64() - begin); };
  // A loaded machine gets the time to let some events fire.
  while (lasted() < kLength || (completions < kEnough && lasted() < kPatience / 2)) Sleep(10);
  stop = true;
  while (done < static_cast<int>(jobs.size()) && GetTickCount64() < deadline) {
    // A registration that was last leaves pauses to be ended.
    Manager::clear_events();
    Sleep(10);
  }
  if (done < static_cast<int>(jobs.size())) {
    // Joining would hang, and threads may not outlive what they use.
    static_cast<void>(std::fputs("PackageEventStress: the threads are stuck\n", stderr));
    std::abort();
  }
  for (auto& thread : threads) thread.join();
  Manager::clear_events();
  EXPECT_EQ(packages.Handlers(), 0U);
  EXPECT_GT(rounds, 100);
  EXPECT_GE(completions, kEnough);
}

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane
