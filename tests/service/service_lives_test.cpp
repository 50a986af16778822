// Cases that no scenario can reproduce: tasks that log at the same moment, and faults during a
// task.

#include "events/package_event_manager.h"
#include "platform/windows_runtime_error.h"
#include "service/simulated_service.h"
#include "storage/cap_data_store.h"
#include "support/faulty_files.h"
#include "support/test.h"

namespace Vx::Tests {
namespace {

using Storage = Tessel::Server::Storage::CapDataStore;
using Element = Tessel::Server::Storage::BsonElement;
using Tessel::Server::Services::Orvane::OrvaneService;

constexpr std::int64_t kPowerOnUnix = 1'721'026'400;  // kPowerOn in seconds since 1970
constexpr char kBootTime[] = "OrvaneLastBootTime";
constexpr wchar_t kWatch[] =
    LR"({"catalogEvent":5,"catalogAction":1,"packageFamilyName":"App_r4x2m8kq7tn3b",)"
    LR"("catalogActionParams":{"path":"C:\\a.exe"}})";
constexpr char kNotified[] = "oobe_complete_event_sent_to_quboapp";

// Every one-time action is already done on this machine, except notifying the companion app.
class ServiceLivesTest : public SimulatedServiceTest {
 protected:
  ServiceLivesTest() {
    machine.firmware.SetWarrantyBlock(std::string("20240715").append(120, '\0'));
    Storage().persist("oobe_complete_aurelo_launched", true);
    Storage().mergeMember("OrvaneServiceDocument", "FirstSystemEnforcementMode", Element::Int32(0));
  }

  void Start(std::chrono::milliseconds length) {
    host.service->Start();
    machine.clock.Advance(length);
  }
};

TEST_F(ServiceLivesTest, ABootIsNewWhenItIsMoreThanAMinuteFromTheOneOnRecord) {
  static const std::pair<Element, bool> kCases[] = {
      {Element::Int64(kPowerOnUnix - 60), false},
      {Element::Int64(kPowerOnUnix + 60), false},
      {Element::Int64(kPowerOnUnix + 61), true},
      {Element::Text("1721021600"), true},
      {Element::Int32(static_cast<std::int32_t>(kPowerOnUnix)), true},
      {Element::Int64(std::numeric_limits<std::int64_t>::min()), true},
  };
  for (const auto& [stored, isNew] : kCases) {
    SCOPED_TRACE(isNew);
    Storage().persist(kBootTime, stored);
    host.Renew();
    log.Clear();
    Start(6s);
    EXPECT_THAT(log.Lines(), Contains(HasSubstr(L"Event: Not a new boot")).Times(!isNew));
    EXPECT_EQ(Storage().readInt64(kBootTime) == kPowerOnUnix, isNew);
  }
}

TEST_F(ServiceLivesTest, APolicyChangeThatThrowsIsLoggedAndReturnsZero) {
  const std::pair<std::function<void()>, std::wstring> cases[] = {
      {[] { throw Platform::WindowsRuntimeError(5, L"no"); }, L"Message: no, Code: 5"},
      {[] { throw std::runtime_error("no"); }, L"no"},
  };
  FaultyFiles disk;
  const Platform::MachineScope faulty([&](auto& platform) { platform.files = &disk; });
  for (const auto& c : cases) {
    disk.onStep = [&c](const char*) {
      c.first();
      return 0U;
    };
    EXPECT_EQ(host.Execute(16, L"{}").result, 0U);
    EXPECT_TRUE(log.Has(L"warning|OrvaneService - OnPolicyChangedEvent failed: " + c.second));
  }
}

TEST_F(ServiceLivesTest, AStoreThatCannotBeOpenedEndsTheNotificationsWithoutRetry) {
  store.Block();
  Start(0s);
  EXPECT_THAT(log.Lines(), Contains(L"error|Failed to create CapDataStore instance").Times(1));
  EXPECT_THAT(log.Lines(), Contains(HasSubstr(L"OrvaneService.CheckToSendWakeupEvent threw")));
  log.Clear();
  machine.clock.Advance(3h);
  EXPECT_THAT(log.Lines(), IsEmpty());
  EXPECT_THAT(Sent(), IsEmpty());
  EXPECT_THAT(Started(), IsEmpty());
  EXPECT_EQ(machine.clock.Workers(), 0U);
}

TEST_F(ServiceLivesTest, AnAttemptThatThrowsIsOneThatFailed) {
  machine.timeline.SetListener(
      [&](const auto&) { machine.faults.FailNamed("KernelObjects.LockMutex"); });
  Start(1s);
  machine.timeline.SetListener({});
  machine.faults.Clear();
  EXPECT_THAT(log.Lines(), Contains(HasSubstr(L"OrvaneService.oobe_event_task threw")));
  EXPECT_TRUE(log.Has(L"info|OrvaneService: oobe_event_task() failed on attempt 0"));
  machine.clock.Advance(20min);
  EXPECT_EQ(Sent().size(), 2U);
  EXPECT_TRUE(Storage().readBool(kNotified, false));
  EXPECT_EQ(machine.clock.Workers(), 0U);
}

TEST_F(ServiceLivesTest, DestructionEndsBothWaitsForAUserAndTouchesNothingAfterwards) {
  const std::wstring name = L"Vx::Tessel::Server::Services::Orvane::OrvaneService::";
  for (const auto at : {4'500ms, 500'500ms}) {
    machine.users.DetachConsole();
    host.Renew();
    Start(at);
    log.Clear();
    host.End();
    machine.clock.Settle();
    EXPECT_EQ(machine.clock.Workers(), 0U);
    EXPECT_THAT(log.Lines(),
                testing::UnorderedElementsAre(
                    L"info|" + name + L"startup_task: terminated (Is Real User Session) - 0 / 0",
                    L"warning|" + name + L"CheckToSendWakeupEvent - terminated"));
    machine.users.LogOn(L"ann");
    machine.faults.Clear();
    machine.clock.Advance(3h);
    EXPECT_THAT(machine.faults.Calls(), IsEmpty());
  }
}

// Ends both kinds of delivery, but not those of another service in the process.
TEST_F(ServiceLivesTest, DestructionEndsTheDeliveriesThatWait) {
  const std::wstring end =
      LR"("commandParams":{"packageFamilyName":"f","appServiceName":"s",)"
      LR"("payload":{},"delayDeliverySec":"86400"}})";
  host.Execute(9, (LR"({"powerEventType":7,"eventAction":2,)" + end).c_str());
  host.Execute(14, (LR"({"zephraEventType":1,"zephraEventAction":2,)" + end).c_str());
  OrvaneService* const other = OrvaneService::Create();
  for (OrvaneService* service : {host.service.get(), other}) {
    service->power_event_task(7);
    service->OnPolicyChangedEvent(L"", L"");
  }
  machine.clock.Settle();
  log.Clear();
  host.End();
  machine.clock.Settle();
  EXPECT_EQ(machine.clock.Workers(), 2U);
  EXPECT_THAT(log.Records(),
              testing::UnorderedElementsAre(HasSubstr(L"power 7 dropped:service_ended"),
                                            HasSubstr(L"platform 1 dropped:service_ended")));
  other->Destroy(1);
  machine.clock.Settle();
  EXPECT_EQ(machine.clock.Workers(), 0U);
  EXPECT_THAT(Sent(), IsEmpty());
}

// The second client subscribes while the first one's failure is being logged.
TEST_F(ServiceLivesTest, ARefusedPackageSubscriptionTakesNoOtherClientsWithIt) {
  Reply second;
  const LogTrap refusal(L"RegisterAppPackageEvent threw", 1, [&] {
    InstallApp(L"App");
    second = host.Execute(7, kWatch);
  });
  EXPECT_EQ(host.Execute(7, kWatch).result, 0x20000004U);
  EXPECT_EQ(second.result, 0U);
  EXPECT_EQ(host.Execute(7, kWatch).result, 0x20000009U) << "the second one is not stored";
  machine.clock.Settle();
  EXPECT_EQ(machine.packages.Handlers(L"ann"), 1U);
}

TEST_F(ServiceLivesTest, DestructionDoesNotWaitForThePackageQueriesOfItsStartUpTask) {
  using Tessel::Server::Services::Orvane::PackageCatalogEventManager;
  using Tessel::Server::Services::Orvane::PackageUninstallingPCEvent;
  InstallApp(L"App");
  std::wstring request = kWatch;
  for (const wchar_t* event : {L"5", L"7"}) {
    ASSERT_EQ(host.Execute(7, request.replace(16, 1, event).c_str()).result, 0U);
  }
  host.service->OnSessionChange(6);
  machine.faults.Clear();
  bool inTime = false;
  std::promise<void> held;
  std::promise<void> ended;
  std::jthread holder([&] {
    const std::lock_guard guard(PackageUninstallingPCEvent::rLock);
    held.set_value();
    inTime = ended.get_future().wait_for(2s) == std::future_status::ready;
  });
  held.get_future().wait();
  host.service->Start();
  Eventually([] { return !IsFree(PackageCatalogEventManager::listChange); }, 20s);
  host.End();
  ended.set_value();
  holder.join();
  EXPECT_TRUE(inTime);
  machine.clock.Settle();
  EXPECT_EQ(machine.packages.Handlers(L"ann"), 0U);
  EXPECT_LE(std::ranges::count(machine.faults.Calls(), "Packages.FindForAllUsers"), 1)
      << "after the end";
}

TEST_F(ServiceLivesTest, AFailureWhileTheStoreIsUnreadableTakesNoOtherClientsSubscription) {
  InstallApp(L"App");
  ASSERT_EQ(host.Execute(7, kWatch).result, 0U);
  machine.faults.FailNamed("KernelObjects.LockMutex");
  const LogTrap readable(L"Failed to get DataStore", 1,
                         [&] { machine.faults.FailNamed("Packages.FindForAllUsers"); });
  EXPECT_NE(host.Execute(7, kWatch).result, 0U);
  EXPECT_TRUE(log.Lines().back().find(L": refused") != std::wstring::npos) << log.Lines().size();
  machine.faults.Clear();
  EXPECT_EQ(host.Execute(7, kWatch).result, 0x20000009U) << "the first one is not stored";
}

TEST_F(ServiceLivesTest, APackageSubscriptionThatIsNotStoredIsCheckedButNotWatched) {
  machine.faults.FailNamed("DataProtection.Protect", 1);
  EXPECT_EQ(host.Execute(7, kWatch).result, 0x20000004U);
  EXPECT_THAT(log.Lines(),
              Contains(HasSubstr(L"a refused package subscription could not be taken back")));
  machine.faults.FailNamed("DataProtection.Protect");
  InstallApp(L"App");
  EXPECT_EQ(host.Execute(7, (std::wstring(kWatch) + L" ").c_str()).result, 0x20000009U);
  std::wstring other = kWatch;
  EXPECT_EQ(host.Execute(7, other.replace(16, 1, L"7").c_str()).result, 0U);
  EXPECT_EQ(host.Execute(7, other.replace(16, 1, L"6").c_str()).result, 0x20000006U);
  machine.clock.Settle();
  EXPECT_EQ(machine.packages.Handlers(L"ann"), 0U);
}

// A service destroyed during its start-up task cannot end the watches that the task adds.
TEST_F(ServiceLivesTest, NoPackageIsWatchedForAServiceThatIsGone) {
  InstallApp(L"App");
  ASSERT_EQ(host.Execute(7, kWatch).result, 0U);
  host.service->OnSessionChange(6);
  Start(0s);
  EXPECT_EQ(machine.packages.Handlers(L"ann"), 1U);

  machine.firmware.SetTamper([this](const std::wstring&, tagVARIANT&) { host.End(); });
  host.Renew();
  OrvaneService* const other = OrvaneService::Create();
  other->OnSessionChange(5);
  Start(0s);
  EXPECT_EQ(host.service, nullptr);
  EXPECT_EQ(machine.packages.Handlers(L"ann"), 1U) << "of the other service";
  other->Destroy(1);
  EXPECT_EQ(machine.packages.Handlers(L"ann"), 0U);
}

}  // namespace
}  // namespace Vx::Tests
