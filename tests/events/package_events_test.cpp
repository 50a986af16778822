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

#include "events/fake_package_catalog.h"
#include "events/package_event_manager.h"
#include "events/package_event_request.h"
#include "platform/hresult_error.h"
#include "platform/machine.h"
#include "simulator/virtual_clock.h"
#include "storage/request_manager.h"
#include "support/fake_app_services.h"
#include "support/fake_console.h"
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

class PackageEventTest : public testing::Test {
 protected:
  PackageEventTest() { console.SetPackages(kFamily, 1); }
  ~PackageEventTest() override { Manager::clear_events(); }

  // 0, or the code that it throws.
  winrt::hresult Register(const std::wstring& request) {
    try {
      Manager::register_event(request,
                              [this](const std::wstring& text) { completed.push_back(text); });
      clock.Settle();
      return 0;
    } catch (const winrt::hresult_error& error) {
      return error.code();
    }
  }

  Simulator::VirtualClock clock;
  FakePackageCatalog console;
  FakeAppServices services;
  MachineScope scope{[this](Machine& machine) {
    console.Install(machine);
    machine.clock = &clock;
    machine.appServices = &services;
  }};
  LogCapture log;
  std::vector<std::wstring> completed;
};

TEST_F(PackageEventTest, OpensTheCatalogAsTheConsoleUserUnlessItIsRefused) {
  const std::wstring five = Notifying(L"5");
  constexpr std::size_t kNever = FakeConsole::kNever;
  const struct {
    const char* name;
    winrt::hresult result;
    std::wstring request;
    std::size_t failingCall = kNever;  // the token, the impersonation, the revert
    std::uint32_t session = 1;
  } cases[] = {
      {"event 5", 0, five},
      {"event 7", 0, Launching(L"7")},
      {"truncated", 0, Notifying(L"5.9")},
      {"an unknown event of no package", kUnknownCatalogEvent, Notifying(L"6", L"Gone")},
      {"an event beyond any number", kUnknownCatalogEvent, Notifying(L"4294967301")},
      {"an unknown action", kUnknownAction, Request(L"5", L"3", L"{}")},
      {"a package that is not there", kPackageNotInstalled, Notifying(L"5", L"Gone")},
      {"another case of letters", kPackageNotInstalled, Notifying(L"5", L"app_ABC")},
      {"no parameters", Json::kJsonValueNotFound, Request(L"5", L"2", L"{}")},
      {"no JSON", Json::kInvalidJsonString, L"{"},
      {"nobody at the console", kConsoleUserUnavailable, five, kNever, 0xFFFFFFFF},
      {"token refused", kConsoleUserUnavailable, five, 0},
      {"impersonation refused", kConsoleUserUnavailable, five, 1},
      {"revert refused", 0, five, 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    console.openedAsUser = false;
    console.acting = false;
    console.session = c.session;
    console.FailCall(c.failingCall);
    EXPECT_EQ(Register(c.request), c.result);
    EXPECT_EQ(console.openedAsUser, c.result == 0);
    EXPECT_EQ(console.acting, c.failingCall == 2);
    EXPECT_EQ(console.Handlers(), c.result == 0 ? 1U : 0U);
    Manager::clear_events();
  }
  EXPECT_EQ(console.impersonations, console.reverts);
}

TEST_F(PackageEventTest, NeverFiresWhereWindowsHasNoSessions) {
  console.sessionApi = false;
  Register(Notifying(L"5"));
  EXPECT_EQ(clock.Workers(), 0U);
  EXPECT_EQ(console.Handlers(), 0U);
  EXPECT_THAT(log.Lines(),
              ElementsAre(L"error|Problem in PackageUninstallingPCEvent::"
                          L"PackageUninstallingPCEvent(): WTSQueryUserToken is not available on "
                          L"this platform"));
}

TEST_F(PackageEventTest, WatchesOnceHoweverOftenItIsRegistered) {
  SubscribeForAppPackageEventRequest request(Notifying(L"5"));
  request.RegisterPackageEvent(nullptr);
  request.RegisterPackageEvent(nullptr);
  clock.Settle();
  EXPECT_EQ(console.Handlers(), 1U);
}

TEST_F(PackageEventTest, RunsOnceWhenAnUninstallStarts) {
  Register(Notifying(L"5"));
  console.Notify(FakeUninstall(L"Other", [] { return false; }));
  EXPECT_THAT(log.Lines(), ElementsAre(L"info|PackageUninstallingEvent invoked. Searching for PFN: "
                                       L"App_abc, PFN received: Other"));
  EXPECT_THAT(completed, IsEmpty());

  log.Clear();
  console.Notify(FakeUninstall(kFamily, [] { return false; }));
  console.Notify(FakeUninstall(kFamily, [] { return false; }));
  EXPECT_THAT(services.Sent(), SizeIs(1));
  EXPECT_THAT(completed, ElementsAre(L""));
  EXPECT_THAT(log.Lines(), ElementsAre(kInvoked));
}

TEST_F(PackageEventTest, WaitsForTheEndOfAnUninstallAndRunsUnlessAPackageRemains) {
  static constexpr struct {
    const char* name;
    int incompletePolls;
    std::size_t remaining;
    milliseconds takes;
    int polls;
  } kCases[] = {
      {"complete at once", 0, 0, 0ms, 1},
      {"complete at the second look", 1, 0, 2000ms, 2},
      {"complete at the last look", 14, 0, 28000ms, 15},
      {"never complete", 1000, 0, 30000ms, 15},
      {"somebody else has it still", 0, 1, 0ms, 1},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    console.SetPackages(kFamily, 2);
    completed.clear();
    Register(Notifying(L"7"));
    log.Clear();
    const std::size_t sent = services.Sent().size();
    const std::uint64_t start = clock.TickCount();
    int polls = 0;
    console.SetPackages(kFamily, c.remaining);

    console.Notify(FakeUninstall(kFamily, [&] { return polls++ >= c.incompletePolls; }));
    EXPECT_EQ(milliseconds(clock.TickCount() - start), c.takes);
    EXPECT_EQ(polls, c.polls);
    std::vector<std::wstring> lines{kInvoked};
    if (c.takes == 30000ms) lines.emplace_back(kTookTooLong);
    EXPECT_EQ(log.Lines(), lines);
    EXPECT_EQ(services.Sent().size() - sent, c.remaining == 0 ? 1U : 0U);

    // What did not run stays armed, and what ran does not run again.
    console.SetPackages(kFamily, 0);
    console.Notify(FakeUninstall(kFamily));
    EXPECT_EQ(services.Sent().size() - sent, 1U);
    EXPECT_THAT(completed, ElementsAre(L""));
    Manager::clear_events();
  }
}

TEST_F(PackageEventTest, StaysArmedWhenItsCommandFails) {
  Register(Notifying(L"5"));
  services.onSend = [] { throw std::runtime_error("boom"); };
  console.Notify(FakeUninstall(kFamily));
  EXPECT_EQ(log.Lines().back(), L"error|PackageUninstallingEvent failed. boom");
  EXPECT_THAT(completed, IsEmpty());

  services.onSend = [] {};
  console.Notify(FakeUninstall(kFamily));
  EXPECT_THAT(completed, SizeIs(1));
}

TEST_F(PackageEventTest, LogsAQueryAndAHandlerThatAreRefused) {
  Register(Notifying(L"7"));
  console.queryError = 5;
  console.Notify(FakeUninstall(kFamily));
  EXPECT_EQ(log.Lines().back(), L"error|PackageUninstallingEvent failed. Message: , Code: 5");

  console.queryError = 0;
  console.addError = 6;
  Register(Notifying(L"5"));
  EXPECT_EQ(log.Lines().back(), L"error|PackageUninstallingEvent failed. Message: , Code: 6");
}

TEST_F(PackageEventTest, EndsItsWatchersWithoutWaitingOutAStep) {
  for (int i = 0; i < 20; ++i) Register(Notifying(L"5"));
  EXPECT_EQ(console.Handlers(), 20U);
  Manager::clear_events();
  EXPECT_EQ(console.Handlers(), 0U);
  EXPECT_EQ(clock.Workers(), 0U);
  EXPECT_EQ(clock.Elapsed(), 0ms);
  console.Notify(FakeUninstall(kFamily));
  EXPECT_THAT(services.Sent(), IsEmpty());
}

TEST_F(PackageEventTest, ANotificationMayOutliveItsEvent) {
  Register(Notifying(L"7"));
  console.SetPackages(kFamily, 0);
  int polls = 0;
  const FakeUninstall uninstall(kFamily, [&] {
    if (++polls == 3) Manager::clear_events();
    return false;
  });
  console.Notify(uninstall);
  EXPECT_EQ(polls, 3);
  EXPECT_THAT(services.Sent(), IsEmpty());
  EXPECT_THAT(log.Lines(), ElementsAre(kInvoked));
}

class StoredPackageEventTest : public PackageEventTest {
 protected:
  std::wstring Stored() const {
    return RequestManager(kServiceDocument, kPackageSubscriptions).StoredRequests();
  }

  Tests::PrivateStore store;
};

TEST_F(StoredPackageEventTest, WatchesARequestAcrossLogOffsUntilItsCommandHasRun) {
  RegisterAppPackageEvent(Notifying(L"5"));
  EXPECT_EQ(Stored(), L"[" + Notifying(L"5") + L"]");
  Manager::clear_events();
  RegisterExistingPackageCatalogManagerRequests();
  clock.Settle();
  console.Notify(FakeUninstall(kFamily));
  EXPECT_THAT(services.Sent(), SizeIs(1));
  EXPECT_EQ(Stored(), L"[]");

  RegisterAppPackageEvent(Notifying(L"5"));
  clock.Settle();
  console.Notify(FakeUninstall(kFamily));
  EXPECT_EQ(Stored(), L"[]");
}

TEST_F(StoredPackageEventTest, KeepsARequestWhoseRegistrationFailed) {
  const std::wstring gone = Launching(L"5", L"Gone");
  EXPECT_THROW(RegisterAppPackageEvent(gone), winrt::hresult_error);
  EXPECT_EQ(Stored(), L"[" + gone + L"]");
  RemoveAppPackageEvent(gone);
  EXPECT_EQ(Stored(), L"[]");
}

TEST_F(StoredPackageEventTest, ReplaysWhatIsStoredAndRunsLaunchesThatAreLate) {
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

  console.Notify(FakeUninstall(kFamily));
  EXPECT_THAT(services.Sent(), SizeIs(1));
  EXPECT_EQ(Stored(), L"[" + unknown + L"]");
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
  constexpr int kEnough = 5;
  FakePackageCatalog packages;
  FakeAppServices services;
  packages.SetPackages(kFamily, 1);
  packages.SetPackages(L"Other", 1);
  const MachineScope scope([&](Machine& machine) {
    machine.packages = &packages;
    machine.appServices = &services;
  });
  std::atomic<bool> stop{false};
  std::atomic<std::size_t> done{0};
  std::atomic<int> completions{0};
  const auto count = [&](const std::wstring&) { ++completions; };

  const std::vector<std::function<void()>> jobs{
      [&] { Manager::register_event(Notifying(L"5"), count); },
      [&] { Manager::register_event(Notifying(L"7", L"Other"), count); },
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
      for (; !stop; Sleep(1)) job();
      ++done;
    });
  }
  const ULONGLONG begin = GetTickCount64();
  const auto lasted = [begin] { return milliseconds(GetTickCount64() - begin); };
  // A loaded machine gets the time to let some events fire.
  while (lasted() < 1500ms || (completions < kEnough && lasted() < 15s)) Sleep(10);
  stop = true;
  while (done < jobs.size() && lasted() < 30s) {
    // A registration that was last leaves pauses to be ended.
    Manager::clear_events();
    Sleep(10);
  }
  if (done < jobs.size()) {
    // Joining would hang, and threads may not outlive what they use.
    static_cast<void>(std::fputs("PackageEventStress: the threads are stuck\n", stderr));
    std::abort();
  }
  for (auto& thread : threads) thread.join();
  Manager::clear_events();
  EXPECT_EQ(packages.Handlers(), 0U);
  EXPECT_GE(completions, kEnough);
}

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane
