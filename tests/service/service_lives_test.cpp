// Whole lives of a service under a clock that a test moves: what it says, and when.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "support/fake_app_services.h"
#include "platform/machine.h"
#include "platform/registry.h"
#include "platform/system_services.h"
#include "service/private_lockdown_policy.h"
#include "service/service_fixture.h"
#include "simulator/fault_injection.h"
#include "simulator/simulated_firmware.h"
#include "simulator/virtual_clock.h"
#include "storage/cap_data_store.h"
#include "support/fake_console.h"

namespace Vx::Tests {
namespace {

using namespace std::chrono_literals;  // NOLINT(google-build-using-namespace)
using Storage = Tessel::Server::Storage::CapDataStore;
using Element = Tessel::Server::Storage::BsonElement;
using Lines = std::vector<std::wstring>;
namespace Logging = Tessel::Server::Logging;
using testing::Contains;
using testing::ElementsAre;
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
  State Query() const override { return {true, clock.Elapsed() >= ends}; }

  std::chrono::milliseconds ends{0};

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

  // A file where the folder of the store would be.
  void BlockStore() const {
    const auto folder = std::filesystem::path(host.StorePath()).parent_path();
    std::filesystem::remove(host.StorePath());
    std::filesystem::remove(folder);
    std::filesystem::remove(folder.parent_path());
    std::ofstream(folder.parent_path()) << "no folder";
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

constexpr wchar_t kDateWritten[] =
    L"OrvaneService::SetBornOnDate - successfully wrote born on date value or value was already "
    L"set: 20240715";
constexpr wchar_t kUserFound[] =
    L"OrvaneService: got real user session; calling oobe_event_task(), user=C:\\Users\\ann";
constexpr wchar_t kFulfilling[] =
    L"CheckToSendWakeupEvent: FulfillZephraManagementEventRequests for: C:\\Users\\ann";

std::wstring At(const std::wstring& second, const wchar_t* text) {
  return second + L" info|" + text;
}

// What every start writes from the end of OOBE to the wait for a user, on a machine whose first
// lockdown mode was recorded as 0.
Lines StartLines(const std::wstring& second) {
  Lines lines;
  for (const wchar_t* line :
       {L"OrvaneService: Verified that OOBE completed.",
        L"OrvaneService::SetBornOnDate - initial born on date value: 20240715", kDateWritten,
        L"Wrote born on date to shared data store",
        L"startup_task.SetFirstLockDownMode First Lockdown Policy is 0",
        L"CheckToSendWakeupEvent: Started",
        L"OrvaneService: start waiting for real user session"}) {
    lines.push_back(second + L" info|" + line);
  }
  return lines;
}

Lines operator+(Lines left, const Lines& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

// The lines of the wake-up check's wait, one a minute.
Lines WaitingLines(int minutes) {
  Lines lines;
  for (int minute = 1; minute <= minutes; ++minute) {
    lines.push_back(std::to_wstring(60 * minute + 10) +
                    L" info|CheckToSendWakeupEvent: Waiting for user session for " +
                    std::to_wstring(minute) + L" minutes");
  }
  return lines;
}

// What the start-up task writes once it has a user, on a machine set up long ago.
Lines UserLines(const std::wstring& second) {
  return {second + L" info|OrvaneService:path_expanded = [C:\\Users\\ann]",
          second +
              L" info|OrvaneService: got real user session; calling oobe_event_task(), "
              L"user=C:\\Users\\ann",
          second + L" info|Vx Aurelo already launched. No need to schedule",
          second + L" info|OrvaneService::oobe_event_task() / qubo not sending event"};
}

Lines BootLines(const std::wstring& second) {
  return {second +
              L" info|CheckToSendWakeupEvent: FulfillZephraManagementEventRequests for: "
              L"C:\\Users\\ann",
          second + L" info|FulfillZephraManagementEventRequests: Started"};
}

TEST_F(ServiceLivesTest, TheFirstBootRunsFromOobeToTheLaunchAnHourLater) {
  const PrivateLockdownPolicy policy;
  const LockdownMode locked(2);
  oobe.ends = 61s;
  host.service->Start();
  clock.Advance(2h);
  EXPECT_THAT(
      diary.Take(),
      ElementsAre(L"0 info|OrvaneService: OOBE not completed: 0",
                  L"60 info|OrvaneService: OOBE not completed: 0",
                  L"61 info|OrvaneService: Verified that OOBE completed.",
                  L"61 info|OrvaneService::SetBornOnDate - initial born on date value: ",
                  At(L"61", kDateWritten), L"61 info|Wrote born on date to shared data store",
                  L"61 info|startup_task.SetFirstLockDownMode First Lockdown Policy is -1",
                  L"61 info|startup_task.SetFirstLockDownMode Current Lockdown Policy is 2",
                  L"61 info|CheckToSendWakeupEvent: Started",
                  L"61 info|OrvaneService: start waiting for real user session",
                  L"61 info|OrvaneService:path_expanded = [C:\\Users\\ann]", At(L"61", kUserFound),
                  L"61 info|Scheduling Vx Aurelo launch", At(L"71", kFulfilling),
                  L"71 info|FulfillZephraManagementEventRequests: Started",
                  L"3661 info|Aurelo launched"));
  EXPECT_THAT(apps.Sent(), ElementsAre(kTellQubo));
  EXPECT_EQ(clock.Workers(), 0U);
  Storage store;
  EXPECT_TRUE(store.readBool(kTold, false));
  EXPECT_EQ(store.readInt64(kBootTime), kPowerOnUnix);
  EXPECT_EQ(store.readDocument(kDocument).Find(kFirstMode)->AsInt32(), 2);
}

TEST_F(ServiceLivesTest, OobeThatNeverEndsIsReportedOnceAMinuteForEver) {
  oobe.ends = 10'000h;
  host.service->Start();
  clock.Advance(20min);
  Lines expected;
  for (int minute = 0; minute <= 20; ++minute) {
    expected.push_back(std::to_wstring(60 * minute) +
                       L" info|OrvaneService: OOBE not completed: 0");
  }
  EXPECT_EQ(diary.Take(), expected);
  EXPECT_EQ(clock.Workers(), 1U);
  EXPECT_EQ(StoreBytes(), "");
}

TEST_F(ServiceLivesTest, TwoHoursWithoutAUserDoNotKeepTheCompanionAppUninformed) {
  SetUpLongAgo();
  Storage().persist(kTold, false);
  console.session = kNobody;
  host.service->Start();
  clock.Advance(2h);
  Lines expected = StartLines(L"0") + WaitingLines(11);
  expected.emplace_back(
      L"7200 info|OrvaneService: waited for 2 hours for real user session; abandoned");
  expected.emplace_back(L"7200 info|Vx Aurelo already launched. No need to schedule");
  EXPECT_EQ(diary.Take(), expected);
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
    const std::wstring second = std::to_wstring(600 * attempt);
    expected.push_back(second + L" info|Vx Aurelo already launched. No need to schedule");
    expected.push_back(second + L" info|OrvaneService: oobe_event_task() failed on attempt " +
                       std::to_wstring(attempt));
  }
  EXPECT_EQ(diary.Take(), expected);
  EXPECT_EQ(apps.Sent().size(), 14U);  // each attempt asks the older app too
  EXPECT_FALSE(Storage().readBool(kTold, false));
  EXPECT_EQ(clock.Workers(), 0U);
}

TEST_F(ServiceLivesTest, AttemptsThatFailInTheFirstHourStillLaunchOnce) {
  apps.status = 1;
  host.service->Start();
  clock.Advance(3h);
  const Lines lines = diary.Take();
  const auto count = [&](const wchar_t* text) {
    return std::count_if(lines.begin(), lines.end(), [&](const std::wstring& line) {
      return line.find(text) != std::wstring::npos;
    });
  };
  EXPECT_EQ(count(L"Scheduling Vx Aurelo launch"), 6);
  EXPECT_EQ(count(L"3600 info|Aurelo launched"), 1);
  EXPECT_EQ(count(L"3600 info|Vx Aurelo already launched"), 1);
  EXPECT_EQ(count(L"aurelo not sending event"), 5);
  EXPECT_EQ(console.started.size(), 1U);
  EXPECT_EQ(clock.Workers(), 0U);
}

TEST_F(ServiceLivesTest, ASecondStartInTheSameBootNotifiesNobody) {
  host.service->Start();
  clock.Advance(30s);
  diary.Take();
  Restart();
  clock.Advance(4200s);
  EXPECT_THAT(apps.Sent(), ElementsAre(kTellQubo));
  EXPECT_EQ(
      diary.Take(),
      StartLines(L"30") +
          Lines({L"30 info|OrvaneService:path_expanded = [C:\\Users\\ann]", At(L"30", kUserFound),
                 L"30 info|Scheduling Vx Aurelo launch",
                 L"30 info|OrvaneService::oobe_event_task() / qubo not sending event",
                 L"35 info|CheckToSendWakeupEvent: Not a new boot", L"3600 info|Aurelo launched",
                 L"3630 info|OrvaneService::oobe_event_task() / aurelo not sending event"}));
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
  console.session = kNobody;
  if (GetParam().userAt == 0s) console.session = 1;
  host.service->Start();
  clock.Advance(GetParam().userAt);
  console.session = 1;
  clock.Advance(30min);
  EXPECT_EQ(diary.Take(), StartLines(L"0") + GetParam().lines);
  EXPECT_EQ(Storage().readInt64(kBootTime), kPowerOnUnix);
  EXPECT_EQ(clock.Workers(), 0U);
}

INSTANTIATE_TEST_SUITE_P(Users, NewBootTest,
                         testing::Values(NewBoot{"AtOnce", 0s, UserLines(L"0") + BootLines(L"10")},
                                         NewBoot{"AfterFourMinutes", 240'500ms,
                                                 WaitingLines(3) + UserLines(L"241") +
                                                     BootLines(L"245")},
                                         NewBoot{"AfterThirteenMinutes", 780'500ms,
                                                 WaitingLines(11) + UserLines(L"781")}),
                         [](const auto& row) { return row.param.name; });

TEST_F(ServiceLivesTest, ABootIsNewWhenItIsMoreThanAMinuteFromTheOneOnRecord) {
  static const struct {
    const char* name = nullptr;
    Element stored;
    bool isNew = false;
  } kCases[] = {
      {"a minute earlier", Element::Int64(kPowerOnUnix - 60), false},
      {"a minute later", Element::Int64(kPowerOnUnix + 60), false},
      {"a second more", Element::Int64(kPowerOnUnix + 61), true},
      {"zero", Element::Int64(0), true},
      {"a text", Element::Text("1721021600"), true},
      {"of another width", Element::Int32(static_cast<std::int32_t>(kPowerOnUnix)), true},
      {"as far as can be", Element::Int64(std::numeric_limits<std::int64_t>::min()), true},
  };
  SetUpLongAgo();
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Storage().persist(kBootTime, c.stored);
    Restart();
    clock.Advance(6s);
    const Lines lines = diary.Take();
    const bool said = std::any_of(lines.begin(), lines.end(), [](const std::wstring& line) {
      return line.ends_with(L"CheckToSendWakeupEvent: Not a new boot");
    });
    EXPECT_NE(said, c.isNew);
    EXPECT_EQ(Storage().readInt64(kBootTime) == kPowerOnUnix, c.isNew);
  }
}

TEST_F(ServiceLivesTest, AStoreThatCannotBeOpenedEndsTheNotificationsWithoutRetry) {
  BlockStore();
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
        Destruction{"ForOobe",
                    10h,
                    1,
                    90'500ms,
                    {L"90 info|startup_task: terminated (OOBE Completed test)"}},
        Destruction{"ForAUserAndBeforeTheBootIsLookedAt",
                    0s,
                    kNobody,
                    4'500ms,
                    {L"4 info|startup_task: terminated (Is Real User Session) - 0 / 0",
                     L"4 warning|CheckToSendWakeupEvent - terminated"}},
        Destruction{"ForAUserOfEither",
                    0s,
                    kNobody,
                    500'500ms,
                    {L"500 info|startup_task: terminated (Is Real User Session) - 0 / 0",
                     L"500 warning|CheckToSendWakeupEvent - terminated"}},
        Destruction{
            "ForTheNextAttempt", 0s, 1, 1'800'500ms, {L"1800 info|startup_task: terminated"}}),
    [](const auto& row) { return row.param.name; });

// A machine that a resume finds in the state under test.
class ResumeTest : public ServiceLivesTest {
 protected:
  ResumeTest() {
    console.userVariables = {{L"%programdata%", machineData.Path().wstring()},
                             {L"%AppData%", userData.Path().wstring()}};
    std::filesystem::create_directories(Source().parent_path());
    std::filesystem::create_directories(Destination().parent_path());
    std::ofstream(Source()) << "registered";
  }

  std::filesystem::path Source() const {
    return machineData.Path() / "Vx" / "Registration" / "registration_subset.xml";
  }
  std::filesystem::path Destination() const {
    return userData.Path() / "Vx" / "Vx Setup" / "REGDATA" / "RegistrationSubset.xml";
  }
  static void SetFirstMode(int mode) {
    Storage().mergeMember(kDocument, kFirstMode, Element::Int32(mode));
  }
  static std::optional<bool> ExecutedStub() {
    const auto element = Storage().readDocument(kDocument).Find("ExecutedMcAfeeStub");
    return element ? element->AsBoolean() : std::nullopt;
  }

  PrivateLockdownPolicy policy;
  TempFolder machineData;
  TempFolder userData;
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
      {"suspend", 4, 2, 0, nullptr, false},
      {"resume, never in S mode", 7, 0, 0, L"PBT_APMRESUMESUSPEND", false},
      {"resume, in S mode still", 18, 2, 2, L"PBT_APMRESUMEAUTOMATIC", false},
      {"resume, left S mode", 7, 2, 0, L"PBT_APMRESUMESUSPEND", true},
      {"automatic resume, left S mode", 18, 2, 0, L"PBT_APMRESUMEAUTOMATIC", true},
  };
  std::size_t restarts = 0;
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    const LockdownMode mode(c.current);
    SetFirstMode(c.first);
    Storage().mergeMember(kDocument, "ExecutedMcAfeeStub", Element::Boolean(true));
    std::filesystem::remove(Destination());
    host.service->power_event_task(c.event);
    Lines expected{L"0 info|power_event_task::PEVX::Enter"};
    if (c.resume != nullptr) {
      expected.push_back(std::wstring(L"0 info|power_event_task::PEVX::") + c.resume);
    }
    EXPECT_EQ(diary.Take(), expected);
    EXPECT_EQ(apps.Sent().size(), ++restarts);
    EXPECT_EQ(apps.Sent().back(), L"/ restarted");
    EXPECT_EQ(std::filesystem::exists(Destination()), c.works);
    EXPECT_EQ(ExecutedStub(), !c.works);  // nothing is preloaded, so that nothing was started
  }
}

TEST_F(ResumeTest, WithoutAStoreNothingIsKnownOfSMode) {
  BlockStore();
  const LogCapture log;
  host.service->power_event_task(7);
  EXPECT_THAT(log.Lines(), Contains(L"error|Could not retrive OrvaneService for "
                                    L"WindowsModeCheckBehavior")
                               .Times(2));
  EXPECT_EQ(apps.Sent().size(), 1U);
  EXPECT_FALSE(std::filesystem::exists(Destination()));
}

}  // namespace
}  // namespace Vx::Tests
