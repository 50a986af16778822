// Whole lives of a service under a clock that a test moves: what it says, and when.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <limits>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "events/fake_package_catalog.h"
#include "events/package_event_manager.h"
#include "platform/machine.h"
#include "platform/registry.h"
#include "platform/system_services.h"
#include "service/private_lockdown_policy.h"
#include "service/service_fixture.h"
#include "simulator/fault_injection.h"
#include "simulator/simulated_firmware.h"
#include "simulator/virtual_clock.h"
#include "storage/cap_data_store.h"
#include "support/fake_app_services.h"
#include "support/fake_console.h"
#include "support/registration_files.h"

namespace Vx::Tests {
namespace {

using namespace std::chrono_literals;  // NOLINT(google-build-using-namespace)
using Storage = Tessel::Server::Storage::CapDataStore;
using Element = Tessel::Server::Storage::BsonElement;
using Lines = std::vector<std::wstring>;
namespace Logging = Tessel::Server::Logging;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;

constexpr std::uint64_t kPowerOn = 133'655'000'000'000'000;  // 2024-07-15T03:33:20Z as a FILETIME
constexpr std::int64_t kPowerOnUnix = 1'721'026'400;         // the same in seconds since 1970
constexpr std::uint32_t kNobody = 0xFFFFFFFF;

constexpr char kDocument[] = "OrvaneServiceDocument";
constexpr char kFirstMode[] = "FirstSystemEnforcementMode";
constexpr char kBootTime[] = "OrvaneLastBootTime";
constexpr char kTold[] = "oobe_complete_event_sent_to_quboapp";
constexpr char kAureloLaunched[] = "oobe_complete_aurelo_launched";
constexpr wchar_t kTellQubo[] =
    L"7C3B9E40.Qubo_r4x2m8kq7tn3b/Vx.Kestra.MachineEventHandler { \"command\": \"oobe_completed\" "
    L"}";

// What the log has in the place of the operations' qualified names.
constexpr wchar_t kClass[] = L"Vx::Tessel::Server::Services::Orvane::OrvaneService::";

// The lines of the service's own logger, each with the second of its life: "61 info|text". Of a
// qualified name only the operation is kept.
class Diary {
 public:
  explicit Diary(const Simulator::VirtualClock& timeOf)
      : clock(timeOf), sink(Logging::LogManager::AddSink([this](const Logging::LogRecord& record) {
          Add(record);
        })) {}
  Diary(const Diary&) = delete;
  Diary& operator=(const Diary&) = delete;
  ~Diary() { Logging::LogManager::RemoveSink(sink); }

  // What was written since the last call, without the repeated lines of the wait for a user.
  Lines Take() {
    const std::lock_guard guard(mutex);
    return std::exchange(lines, {});
  }
  std::size_t PollsWithoutUser() const { return pollsWithoutUser; }

 private:
  void Add(const Logging::LogRecord& record) {
    if (record.provider == L"Vx-Tessel-SystemInformation") return;
    static constexpr const wchar_t* kLevels[] = {L" info|", L" warning|", L" error|"};
    const std::lock_guard guard(mutex);
    std::wstring message(record.message);
    if (message == L"OrvaneService:path_expanded = []") {
      ++pollsWithoutUser;
      return;
    }
    if (message.starts_with(kClass)) message.erase(0, std::size(kClass) - 1);
    const auto now = std::chrono::duration_cast<std::chrono::seconds>(clock.Elapsed());
    lines.push_back(std::to_wstring(now.count()) + kLevels[static_cast<int>(record.level)] +
                    message);
  }

  const Simulator::VirtualClock& clock;
  mutable std::mutex mutex;
  Lines lines;
  std::size_t pollsWithoutUser = 0;
  Logging::LogManager::SinkId sink;
};

// First-run set-up that ends at a moment of the clock.
class TimedOobe final : public Platform::Oobe {
 public:
  explicit TimedOobe(const Simulator::VirtualClock& timeOf) : clock(timeOf) {}
  State Query() const override { return {known, clock.Elapsed() >= ends}; }

  std::chrono::milliseconds ends{0};
  bool known = true;

 private:
  const Simulator::VirtualClock& clock;
};

class EmptyRegistry final : public Platform::Registry {
 public:
  Platform::Result<Platform::RegistryValue> Read(const std::wstring&,
                                                 const std::wstring&) const override {
    return Platform::Result<Platform::RegistryValue>::Failure(2);
  }
  bool Exists(const std::wstring&, const std::wstring&) const override { return false; }
};

class ServiceLivesTest : public testing::Test {
 protected:
  ServiceLivesTest() {
    clock.SetUtcFileTime(kPowerOn);
    clock.SetTickCount(0);
    console.installed[L"7C3B9E40.AureloCenter_r4x2m8kq7tn3b"] = L"Aurelo_1";
    apps.status = 0;
  }
  ~ServiceLivesTest() override {
    host.End();
    clock.Advance(2h);  // delayed launches are not ended by the service
  }

  // A machine on which all that is done once has been done.
  void SetUpLongAgo() {
    firmware.SetWarrantyBlock(std::string("20240715").append(120, '\0'));
    Storage store;
    store.persist(kTold, true);
    store.persist(kAureloLaunched, true);
    store.mergeMember(kDocument, kFirstMode, Element::Int32(0));
  }

  void Restart() {
    host.End();
    host.service.reset(Tessel::Server::Services::Orvane::OrvaneService::Create());
    host.service->CreateClientContext(L"client", &host.context);
    host.service->Start();
  }

  std::string StoreBytes() const {
    std::ifstream file(std::filesystem::path(host.StorePath()), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  Simulator::VirtualClock clock;
  Simulator::SimulatedFirmware firmware;
  EmptyRegistry registry;
  TimedOobe oobe{clock};
  FakeConsole console;
  FakeAppServices apps;
  Platform::MachineScope scope{[this](Platform::Machine& machine) {
    console.Install(machine);
    machine.appServices = &apps;
    machine.clock = &clock;
    machine.com = &firmware;
    machine.oobe = &oobe;
    machine.registry = &registry;
  }};
  ServiceFixture host;
  Diary diary{clock};
};

// Lines of one second, in their order.
Lines At(int second, std::initializer_list<const wchar_t*> texts) {
  Lines lines;
  for (const wchar_t* text : texts) {
    lines.push_back(std::to_wstring(second) + L" info|" + text);
  }
  return lines;
}

Lines operator+(Lines left, const Lines& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

constexpr wchar_t kOobeIsOver[] = L"OrvaneService: Verified that OOBE completed.";
constexpr wchar_t kDateWritten[] =
    L"OrvaneService::SetBornOnDate - successfully wrote born on date value or value was already "
    L"set: 20240715";
constexpr wchar_t kDateStored[] = L"Wrote born on date to shared data store";
constexpr wchar_t kCheckStarted[] = L"CheckToSendWakeupEvent: Started";
constexpr wchar_t kUserWait[] = L"OrvaneService: start waiting for real user session";
constexpr wchar_t kUserSeen[] = L"OrvaneService:path_expanded = [C:\\Users\\ann]";
constexpr wchar_t kUserFound[] =
    L"OrvaneService: got real user session; calling oobe_event_task(), user=C:\\Users\\ann";
constexpr wchar_t kScheduling[] = L"Scheduling Vx Aurelo launch";
constexpr wchar_t kNoNeed[] = L"Vx Aurelo already launched. No need to schedule";
constexpr wchar_t kNotSending[] = L"OrvaneService::oobe_event_task() / qubo not sending event";

// What every start writes from the end of OOBE to the wait for a user, on a machine whose first
// lockdown mode was recorded as 0.
Lines StartLines(int second) {
  return At(
      second,
      {kOobeIsOver, L"OrvaneService::SetBornOnDate - initial born on date value: 20240715",
       kDateWritten, kDateStored, L"startup_task.SetFirstLockDownMode First Lockdown Policy is 0",
       kCheckStarted, kUserWait});
}

// The lines of the wake-up check's wait, one a minute.
Lines WaitingLines(int minutes) {
  Lines lines;
  for (int minute = 1; minute <= minutes; ++minute) {
    const std::wstring text = L"CheckToSendWakeupEvent: Waiting for user session for " +
                              std::to_wstring(minute) + L" minutes";
    lines = lines + At(60 * minute + 10, {text.c_str()});
  }
  return lines;
}

// What the start-up task writes once it has a user, on a machine set up long ago.
Lines UserLines(int second) {
  return At(second, {kUserSeen, kUserFound, kNoNeed, kNotSending});
}

Lines BootLines(int second) {
  return At(second,
            {L"CheckToSendWakeupEvent: FulfillZephraManagementEventRequests for: C:\\Users\\ann",
             L"FulfillZephraManagementEventRequests: Started"});
}

TEST_F(ServiceLivesTest, TheFirstBootRunsFromOobeToTheLaunchAnHourLater) {
  const PrivateLockdownPolicy policy;
  const LockdownMode locked(2);
  oobe.ends = 61s;
  host.service->Start();
  clock.Advance(2h);
  EXPECT_EQ(diary.Take(),
            At(0, {L"OrvaneService: OOBE not completed: 0"}) +
                At(60, {L"OrvaneService: OOBE not completed: 0"}) +
                At(61, {kOobeIsOver, L"OrvaneService::SetBornOnDate - initial born on date value: ",
                        kDateWritten, kDateStored,
                        L"startup_task.SetFirstLockDownMode First Lockdown Policy is -1",
                        L"startup_task.SetFirstLockDownMode Current Lockdown Policy is 2",
                        kCheckStarted, kUserWait, kUserSeen, kUserFound, kScheduling}) +
                BootLines(71) + At(3661, {L"Aurelo launched"}));
  EXPECT_THAT(apps.Sent(), ElementsAre(kTellQubo));
  EXPECT_EQ(clock.Workers(), 0U);
  Storage store;
  EXPECT_TRUE(store.readBool(kTold, false));
  EXPECT_EQ(store.readInt64(kBootTime), kPowerOnUnix);
  EXPECT_EQ(store.readDocument(kDocument).Find(kFirstMode)->AsInt32(), 2);
}

TEST_F(ServiceLivesTest, OobeThatDoesNotEndIsReportedOnceAMinute) {
  oobe.ends = 10'000h;
  host.service->Start();
  clock.Advance(60s);
  oobe.ends = 0s;
  oobe.known = false;  // a failed query proves nothing
  clock.Advance(130s);
  Lines expected;
  for (const int minute : {0, 1, 2, 3}) {
    expected.push_back(std::to_wstring(60 * minute) + L" info|OrvaneService: OOBE not completed: " +
                       (minute < 2 ? L"0" : L"1"));
  }
  EXPECT_EQ(diary.Take(), expected);
  EXPECT_EQ(clock.Workers(), 1U);
  EXPECT_EQ(StoreBytes(), "");
}

TEST_F(ServiceLivesTest, AThreadThatCannotBeMadeIsLoggedAndCommandsStillWork) {
  Simulator::FaultInjection faults;
  const Platform::MachineScope faulty([&](Platform::Machine& machine) { faults.Install(machine); });
  faults.FailNamed("Threads.Start");
  host.service->Start();
  EXPECT_THAT(diary.Take(), ElementsAre(testing::HasSubstr(L"OrvaneService.Start threw")));
  EXPECT_EQ(host.Execute(22, L"{}").result, 0U);
}

TEST_F(ServiceLivesTest, TwoHoursWithoutAUserDoNotKeepTheCompanionAppUninformed) {
  SetUpLongAgo();
  Storage().persist(kTold, false);
  console.session = kNobody;
  host.service->Start();
  clock.Advance(2h);
  EXPECT_EQ(diary.Take(),
            StartLines(0) + WaitingLines(11) +
                At(7200, {L"OrvaneService: waited for 2 hours for real user session; abandoned",
                          kNoNeed}));
  EXPECT_EQ(diary.PollsWithoutUser(), 7200U);
  EXPECT_THAT(apps.Sent(), ElementsAre(kTellQubo));
  EXPECT_EQ(clock.Workers(), 0U);
}

TEST_F(ServiceLivesTest, SevenNotificationsTenMinutesApartAreAllThatIsTried) {
  SetUpLongAgo();
  Storage().persist(kTold, false);
  apps.status = 1;
  host.service->Start();
  clock.Advance(1min);
  diary.Take();
  clock.Advance(3h);
  Lines expected;
  for (int attempt = 1; attempt < 7; ++attempt) {
    const std::wstring failed =
        L"OrvaneService: oobe_event_task() failed on attempt " + std::to_wstring(attempt);
    expected = expected + At(600 * attempt, {kNoNeed, failed.c_str()});
  }
  EXPECT_EQ(diary.Take(), expected);
  EXPECT_EQ(apps.Sent().size(), 14U);  // each attempt asks the older app too
  EXPECT_FALSE(Storage().readBool(kTold, false));
  EXPECT_EQ(clock.Workers(), 0U);
}

TEST_F(ServiceLivesTest, ASecondStartInTheSameBootNotifiesNobody) {
  host.service->Start();
  clock.Advance(30s);
  diary.Take();
  Restart();
  clock.Advance(4200s);
  EXPECT_THAT(apps.Sent(), ElementsAre(kTellQubo));
  EXPECT_EQ(diary.Take(),
            StartLines(30) + At(30, {kUserSeen, kUserFound, kScheduling, kNotSending}) +
                At(35, {L"CheckToSendWakeupEvent: Not a new boot"}) +
                At(3600, {L"Aurelo launched"}) +
                At(3630, {L"OrvaneService::oobe_event_task() / aurelo not sending event"}));
}

struct NewBoot {
  const char* name;
  std::chrono::milliseconds userAt;
  Lines lines;  // after those of the start
};

class NewBootTest : public ServiceLivesTest, public testing::WithParamInterface<NewBoot> {};

TEST_P(NewBootTest, IsToldToItsSubscribersIfAUserComesInTime) {
  SetUpLongAgo();
  Storage().persist(kBootTime, Element::Int64(kPowerOnUnix - 61));
  console.session = GetParam().userAt == 0s ? 1 : kNobody;
  host.service->Start();
  clock.Advance(GetParam().userAt);
  console.session = 1;
  clock.Advance(30min);
  EXPECT_EQ(diary.Take(), StartLines(0) + GetParam().lines);
  EXPECT_EQ(Storage().readInt64(kBootTime), kPowerOnUnix);
  EXPECT_EQ(clock.Workers(), 0U);
}

INSTANTIATE_TEST_SUITE_P(Users, NewBootTest,
                         testing::Values(NewBoot{"AtOnce", 0s, UserLines(0) + BootLines(10)},
                                         NewBoot{"AfterFourMinutes", 240'500ms,
                                                 WaitingLines(3) + UserLines(241) + BootLines(245)},
                                         NewBoot{"AfterThirteenMinutes", 780'500ms,
                                                 WaitingLines(11) + UserLines(781)}),
                         [](const auto& row) { return row.param.name; });

TEST_F(ServiceLivesTest, ABootIsNewWhenItIsMoreThanAMinuteFromTheOneOnRecord) {
  static const struct {
    Element stored;
    bool isNew = false;
  } kCases[] = {
      {Element::Int64(kPowerOnUnix - 60), false},
      {Element::Int64(kPowerOnUnix + 60), false},
      {Element::Int64(kPowerOnUnix + 61), true},
      {Element::Text("1721021600"), true},
      {Element::Int32(static_cast<std::int32_t>(kPowerOnUnix)), true},
      {Element::Int64(std::numeric_limits<std::int64_t>::min()), true},
  };
  SetUpLongAgo();
  for (const auto& c : kCases) {
    SCOPED_TRACE(&c - kCases);
    Storage().persist(kBootTime, c.stored);
    Restart();
    clock.Advance(6s);
    EXPECT_THAT(diary.Take(),
                Contains(EndsWith(L"CheckToSendWakeupEvent: Not a new boot")).Times(!c.isNew));
    EXPECT_EQ(Storage().readInt64(kBootTime) == kPowerOnUnix, c.isNew);
  }
}

TEST_F(ServiceLivesTest, AStoreThatCannotBeOpenedEndsTheNotificationsWithoutRetry) {
  host.BlockStore();
  host.service->Start();
  clock.Advance(3h);
  // The wake-up check runs beside the start-up task, so that their lines have no order.
  const Lines lines = diary.Take();
  EXPECT_THAT(lines, Contains(L"0 error|Failed to create CapDataStore instance").Times(1));
  EXPECT_THAT(lines, Contains(testing::HasSubstr(L"OrvaneService.CheckToSendWakeupEvent threw")));
  EXPECT_THAT(lines, testing::Each(testing::StartsWith(L"0 ")));
  EXPECT_THAT(apps.Sent(), IsEmpty());
  EXPECT_THAT(console.started, IsEmpty());
  EXPECT_EQ(clock.Workers(), 0U);
}

TEST_F(ServiceLivesTest, AnAttemptThatThrowsIsOneThatFailed) {
  SetUpLongAgo();
  Storage().persist(kTold, false);
  Simulator::FaultInjection faults;
  const Platform::MachineScope faulty([&](Platform::Machine& machine) { faults.Install(machine); });
  // The answer cannot be recorded.
  apps.onSend = [&] { faults.FailNamed("KernelObjects.LockMutex"); };
  host.service->Start();
  clock.Advance(1s);
  faults.Clear();
  apps.onSend = [] {};
  const Lines lines = diary.Take();
  EXPECT_THAT(lines, Contains(testing::HasSubstr(L"OrvaneService.oobe_event_task threw")));
  EXPECT_THAT(lines, Contains(L"0 info|OrvaneService: oobe_event_task() failed on attempt 0"));
  clock.Advance(20min);
  EXPECT_EQ(apps.Sent().size(), 2U);
  EXPECT_TRUE(Storage().readBool(kTold, false));
  EXPECT_EQ(clock.Workers(), 0U);
}

struct Destruction {
  const char* name;
  std::chrono::milliseconds oobeEnds;
  std::uint32_t session;
  std::chrono::milliseconds at;
  Lines lines;  // what the tasks say when they notice, in any order
};

class DestructionTest : public ServiceLivesTest, public testing::WithParamInterface<Destruction> {};

TEST_P(DestructionTest, EndsTheWaitAndTouchesNothingAfterwards) {
  SetUpLongAgo();
  Storage().persist(kTold, false);
  apps.status = 1;
  oobe.ends = GetParam().oobeEnds;
  console.session = GetParam().session;
  host.service->Start();
  clock.Advance(GetParam().at);
  diary.Take();
  host.End();
  clock.Settle();
  EXPECT_EQ(clock.Workers(), 0U);
  EXPECT_THAT(diary.Take(), testing::UnorderedElementsAreArray(GetParam().lines));

  const std::string store = StoreBytes();
  const std::size_t calls = console.calls.size();
  const std::size_t sent = apps.Sent().size();
  console.session = 1;
  oobe.ends = 0s;
  clock.Advance(3h);
  EXPECT_EQ(StoreBytes(), store);
  EXPECT_EQ(console.calls.size(), calls);
  EXPECT_EQ(apps.Sent().size(), sent);
  EXPECT_THAT(diary.Take(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Waits, DestructionTest,
    testing::Values(
        Destruction{"ForOobe", 10h, 1, 90'500ms,
                    At(90, {L"startup_task: terminated (OOBE Completed test)"})},
        Destruction{"ForAUserAndBeforeTheBootIsLookedAt", 0s, kNobody, 4'500ms,
                    At(4, {L"startup_task: terminated (Is Real User Session) - 0 / 0"}) +
                        Lines{L"4 warning|CheckToSendWakeupEvent - terminated"}},
        Destruction{"ForAUserOfEither", 0s, kNobody, 500'500ms,
                    At(500, {L"startup_task: terminated (Is Real User Session) - 0 / 0"}) +
                        Lines{L"500 warning|CheckToSendWakeupEvent - terminated"}},
        Destruction{"ForTheNextAttempt", 0s, 1, 1'800'500ms,
                    At(1800, {L"startup_task: terminated"})}),
    [](const auto& row) { return row.param.name; });

// A service that goes while its start-up task is busy leaves nobody who would end what that makes.
TEST_F(ServiceLivesTest, NoPackageIsWatchedForAServiceThatIsGone) {
  SetUpLongAgo();
  FakePackageCatalog catalog;
  catalog.SetPackages(L"App_abc", 1);
  const Platform::MachineScope watched(
      [&](Platform::Machine& machine) { machine.packages = &catalog; });
  ASSERT_EQ(host.Execute(7,
                         LR"({"catalogEvent":5,"catalogAction":1,"packageFamilyName":"App_abc",)"
                         LR"("catalogActionParams":{"path":"C:\\a.exe"}})")
                .result,
            0U);
  host.service->OnSessionChange(6);
  host.service->Start();
  clock.Settle();
  EXPECT_EQ(catalog.Handlers(), 1U);

  firmware.SetTamper([this](const std::wstring&, tagVARIANT&) { host.End(); });
  Restart();
  clock.Settle();
  EXPECT_EQ(host.service, nullptr);
  EXPECT_EQ(catalog.Handlers(), 0U);
  Tessel::Server::Services::Orvane::PackageCatalogEventManager::clear_events();
}

// A machine that a resume finds in the state under test.
class ResumeTest : public ServiceLivesTest {
 protected:
  ResumeTest() { data.WriteSource("registered"); }

  PrivateLockdownPolicy policy;
  RegistrationFiles data{console};
};

TEST_F(ResumeTest, OnlyAResumeOfAMachineThatLeftSModeBringsItsWorkAbout) {
  static const struct {
    const char* name;
    std::uint32_t event;
    int first;
    int current;
    const wchar_t* resume;  // its name in the log; null: none
    bool works;
  } kCases[] = {
      {"power status", 10, 2, 0, nullptr, false},
      {"resume, never in S mode", 7, 0, 0, L"PBT_APMRESUMESUSPEND", false},
      {"resume, in S mode still", 18, 2, 2, L"PBT_APMRESUMEAUTOMATIC", false},
      {"resume, left S mode", 7, 2, 0, L"PBT_APMRESUMESUSPEND", true},
      {"automatic resume, left S mode", 18, 2, 0, L"PBT_APMRESUMEAUTOMATIC", true},
  };
  std::size_t restarts = 0;
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    const LockdownMode mode(c.current);
    Storage().mergeMember(kDocument, kFirstMode, Element::Int32(c.first));
    Storage().mergeMember(kDocument, "ExecutedMcAfeeStub", Element::Boolean(true));
    std::filesystem::remove(data.Destination());
    host.service->power_event_task(c.event);
    Lines expected{L"0 info|power_event_task::PEVX::Enter"};
    if (c.resume != nullptr) {
      expected.push_back(std::wstring(L"0 info|power_event_task::PEVX::") + c.resume);
    }
    EXPECT_EQ(diary.Take(), expected);
    EXPECT_EQ(apps.Sent().size(), ++restarts);
    EXPECT_EQ(apps.Sent().back(), L"/ restarted");
    EXPECT_EQ(data.Copied(), c.works ? "registered" : "");
    // Nothing is preloaded, so that nothing was started.
    EXPECT_EQ(Storage().readDocument(kDocument).Find("ExecutedMcAfeeStub")->AsBoolean(), !c.works);
  }
}

TEST_F(ResumeTest, WithoutAStoreNothingIsKnownOfSMode) {
  host.BlockStore();
  const LogCapture log;
  host.service->power_event_task(7);
  EXPECT_THAT(log.Lines(), Contains(L"error|Could not retrive OrvaneService for "
                                    L"WindowsModeCheckBehavior")
                               .Times(2));
  EXPECT_EQ(apps.Sent().size(), 1U);
  EXPECT_EQ(data.Copied(), "");
}

}  // namespace
}  // namespace Vx::Tests
