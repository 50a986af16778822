// Whole lives of a service under a clock that a test moves: what it says, and when.

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "events/package_event_manager.h"
#include "service/private_lockdown_policy.h"
#include "service/simulated_service.h"
#include "storage/cap_data_store.h"

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
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr std::int64_t kPowerOnUnix = 1'721'026'400;  // kPowerOn in seconds since 1970

const Simulator::SimulatedAppServices::Reply kRefused{1, L""};
constexpr char kDocument[] = "OrvaneServiceDocument";
constexpr char kFirstMode[] = "FirstSystemEnforcementMode";
constexpr char kBootTime[] = "OrvaneLastBootTime";
constexpr char kTold[] = "oobe_complete_event_sent_to_quboapp";
constexpr char kAureloLaunched[] = "oobe_complete_aurelo_launched";
constexpr wchar_t kTellQubo[] =
    L"7C3B9E40.Qubo_r4x2m8kq7tn3b/Vx.Kestra.MachineEventHandler { \"command\": \"oobe_completed\" "
    L"}";

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
  // The second that is now is the first.
  void Restart() { start = clock.Elapsed(); }

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
    static const std::wstring kClass = L"Vx::Tessel::Server::Services::Orvane::OrvaneService::";
    if (message.starts_with(kClass)) message.erase(0, kClass.size());
    const auto now = std::chrono::duration_cast<std::chrono::seconds>(clock.Elapsed() - start);
    lines.push_back(std::to_wstring(now.count()) + kLevels[static_cast<int>(record.level)] +
                    message);
  }

  const Simulator::VirtualClock& clock;
  Platform::Clock::Duration start{};
  mutable std::mutex mutex;
  Lines lines;
  std::size_t pollsWithoutUser = 0;
  Logging::LogManager::SinkId sink;
};

class ServiceLivesTest : public SimulatedServiceTest {
 protected:
  ServiceLivesTest() { InstallApp(L"7C3B9E40.AureloCenter"); }

  // A machine on which all that is done once has been done, or all but telling the companion app.
  void SetUpLongAgo(bool told = true) {
    machine.firmware.SetWarrantyBlock(std::string("20240715").append(120, '\0'));
    Storage store;
    store.persist(kTold, told);
    store.persist(kAureloLaunched, true);
    store.mergeMember(kDocument, kFirstMode, Element::Int32(0));
  }

  void Start(std::chrono::milliseconds length) {
    host.service->Start();
    machine.clock.Advance(length);
  }

  Diary diary{machine.clock};
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
  machine.system.SetLockdownMode(2);
  machine.system.EndOobeAt(61s);
  Start(2h);
  EXPECT_EQ(diary.Take(),
            At(0, {L"OrvaneService: OOBE not completed: 0"}) +
                At(60, {L"OrvaneService: OOBE not completed: 0"}) +
                At(61, {kOobeIsOver, L"OrvaneService::SetBornOnDate - initial born on date value: ",
                        kDateWritten, kDateStored,
                        L"startup_task.SetFirstLockDownMode First Lockdown Policy is -1",
                        L"startup_task.SetFirstLockDownMode Current Lockdown Policy is 2",
                        kCheckStarted, kUserWait, kUserSeen, kUserFound, kScheduling}) +
                BootLines(71) + At(3661, {L"Aurelo launched"}));
  EXPECT_THAT(Sent(), ElementsAre(kTellQubo));
  EXPECT_EQ(machine.clock.Workers(), 0U);
  Storage store;
  EXPECT_TRUE(store.readBool(kTold, false));
  EXPECT_EQ(store.readInt64(kBootTime), kPowerOnUnix);
  EXPECT_EQ(store.readDocument(kDocument).Find(kFirstMode)->AsInt32(), 2);
}

TEST_F(ServiceLivesTest, OobeThatDoesNotEndIsReportedOnceAMinute) {
  machine.system.EndOobeAt(10'000h);
  Start(60s);
  machine.system.EndOobeAt(0s);
  machine.system.SetOobeKnown(false);  // a failed query proves nothing
  machine.clock.Advance(130s);
  EXPECT_EQ(diary.Take(), At(0, {L"OrvaneService: OOBE not completed: 0"}) +
                              At(60, {L"OrvaneService: OOBE not completed: 0"}) +
                              At(120, {L"OrvaneService: OOBE not completed: 1"}) +
                              At(180, {L"OrvaneService: OOBE not completed: 1"}));
  EXPECT_EQ(machine.clock.Workers(), 1U);
}

TEST_F(ServiceLivesTest, AThreadThatCannotBeMadeIsLoggedAndCommandsStillWork) {
  machine.faults.FailNamed("Threads.Start");
  Start(0s);
  EXPECT_THAT(diary.Take(), ElementsAre(HasSubstr(L"OrvaneService.Start threw")));
  EXPECT_EQ(host.Execute(22, L"{}").result, 0U);
}

TEST_F(ServiceLivesTest, TwoHoursWithoutAUserDoNotKeepTheCompanionAppUninformed) {
  SetUpLongAgo(false);
  machine.users.DetachConsole();
  Start(2h);
  EXPECT_EQ(diary.Take(),
            StartLines(0) + WaitingLines(11) +
                At(7200, {L"OrvaneService: waited for 2 hours for real user session; abandoned",
                          kNoNeed}));
  EXPECT_EQ(diary.PollsWithoutUser(), 7200U);
  EXPECT_THAT(Sent(), ElementsAre(kTellQubo));
  EXPECT_EQ(machine.clock.Workers(), 0U);
}

TEST_F(ServiceLivesTest, SevenNotificationsTenMinutesApartAreAllThatIsTried) {
  SetUpLongAgo(false);
  machine.appServices.SetReplies({}, kRefused);
  Start(1min);
  diary.Take();
  machine.clock.Advance(3h);
  Lines expected;
  for (int attempt = 1; attempt < 7; ++attempt) {
    const std::wstring failed =
        L"OrvaneService: oobe_event_task() failed on attempt " + std::to_wstring(attempt);
    expected = expected + At(600 * attempt, {kNoNeed, failed.c_str()});
  }
  EXPECT_EQ(diary.Take(), expected);
  EXPECT_EQ(Sent().size(), 14U);  // each attempt asks the older app too
  EXPECT_FALSE(Storage().readBool(kTold, false));
  EXPECT_EQ(machine.clock.Workers(), 0U);
}

TEST_F(ServiceLivesTest, ASecondStartInTheSameBootNotifiesNobody) {
  Start(30s);
  diary.Take();
  host.Renew();
  Start(4200s);
  EXPECT_THAT(Sent(), ElementsAre(kTellQubo));
  EXPECT_EQ(diary.Take(),
            StartLines(30) + At(30, {kUserSeen, kUserFound, kScheduling, kNotSending}) +
                At(35, {L"CheckToSendWakeupEvent: Not a new boot"}) +
                At(3600, {L"Aurelo launched"}) +
                At(3630, {L"OrvaneService::oobe_event_task() / aurelo not sending event"}));
}

TEST_F(ServiceLivesTest, ANewBootIsToldToItsSubscribersIfAUserComesInTime) {
  const struct {
    std::chrono::milliseconds userAt;
    Lines lines;  // after those of the start
  } kCases[] = {
      {0s, UserLines(0) + BootLines(10)},
      {240'500ms, WaitingLines(3) + UserLines(241) + BootLines(245)},
      {780'500ms, WaitingLines(11) + UserLines(781)},
  };
  SetUpLongAgo();
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.userAt.count());
    Storage().persist(kBootTime, Element::Int64(kPowerOnUnix - 61));
    if (c.userAt != 0s) machine.users.DetachConsole();
    host.Renew();
    diary.Restart();
    machine.clock.SetUtcFileTime(kPowerOn);
    machine.clock.SetTickCount(0);
    Start(c.userAt);
    machine.users.LogOn(L"ann");
    machine.clock.Advance(30min);
    EXPECT_EQ(diary.Take(), StartLines(0) + c.lines);
    EXPECT_EQ(Storage().readInt64(kBootTime), kPowerOnUnix);
    EXPECT_EQ(machine.clock.Workers(), 0U);
  }
}

TEST_F(ServiceLivesTest, ABootIsNewWhenItIsMoreThanAMinuteFromTheOneOnRecord) {
  static const std::pair<Element, bool> kCases[] = {
      {Element::Int64(kPowerOnUnix - 60), false},
      {Element::Int64(kPowerOnUnix + 60), false},
      {Element::Int64(kPowerOnUnix + 61), true},
      {Element::Text("1721021600"), true},
      {Element::Int32(static_cast<std::int32_t>(kPowerOnUnix)), true},
      {Element::Int64(std::numeric_limits<std::int64_t>::min()), true},
  };
  SetUpLongAgo();
  for (const auto& [stored, isNew] : kCases) {
    SCOPED_TRACE(isNew);
    Storage().persist(kBootTime, stored);
    host.Renew();
    Start(6s);
    EXPECT_THAT(diary.Take(),
                Contains(EndsWith(L"CheckToSendWakeupEvent: Not a new boot")).Times(!isNew));
    EXPECT_EQ(Storage().readInt64(kBootTime) == kPowerOnUnix, isNew);
  }
}

TEST_F(ServiceLivesTest, AStoreThatCannotBeOpenedEndsTheNotificationsWithoutRetry) {
  host.BlockStore();
  Start(3h);
  // The wake-up check runs beside the start-up task, so that their lines have no order.
  const Lines lines = diary.Take();
  EXPECT_THAT(lines, Contains(L"0 error|Failed to create CapDataStore instance").Times(1));
  EXPECT_THAT(lines, Contains(HasSubstr(L"OrvaneService.CheckToSendWakeupEvent threw")));
  EXPECT_THAT(lines, testing::Each(testing::StartsWith(L"0 ")));
  EXPECT_THAT(Sent(), IsEmpty());
  EXPECT_THAT(Started(), IsEmpty());
  EXPECT_EQ(machine.clock.Workers(), 0U);
}

TEST_F(ServiceLivesTest, AnAttemptThatThrowsIsOneThatFailed) {
  SetUpLongAgo(false);
  // The answer cannot be recorded.
  machine.timeline.SetListener(
      [&](const auto&) { machine.faults.FailNamed("KernelObjects.LockMutex"); });
  Start(1s);
  machine.timeline.SetListener({});
  machine.faults.Clear();
  const Lines lines = diary.Take();
  EXPECT_THAT(lines, Contains(HasSubstr(L"OrvaneService.oobe_event_task threw")));
  EXPECT_THAT(lines, Contains(L"0 info|OrvaneService: oobe_event_task() failed on attempt 0"));
  machine.clock.Advance(20min);
  EXPECT_EQ(Sent().size(), 2U);
  EXPECT_TRUE(Storage().readBool(kTold, false));
  EXPECT_EQ(machine.clock.Workers(), 0U);
}

struct Destruction {
  const char* name;
  std::chrono::milliseconds oobeEnds;
  bool user;
  std::chrono::milliseconds at;
  Lines lines;  // what the tasks say when they notice, in any order
};

class DestructionTest : public ServiceLivesTest, public testing::WithParamInterface<Destruction> {};

TEST_P(DestructionTest, EndsTheWaitAndTouchesNothingAfterwards) {
  SetUpLongAgo(false);
  machine.appServices.SetReplies({}, kRefused);
  machine.system.EndOobeAt(GetParam().oobeEnds);
  if (!GetParam().user) machine.users.DetachConsole();
  Start(GetParam().at);
  diary.Take();
  host.End();
  machine.clock.Settle();
  EXPECT_EQ(machine.clock.Workers(), 0U);
  EXPECT_THAT(diary.Take(), testing::UnorderedElementsAreArray(GetParam().lines));

  machine.users.LogOn(L"ann");
  machine.system.EndOobeAt(0s);
  machine.faults.Clear();
  machine.clock.Advance(3h);
  EXPECT_THAT(machine.faults.Calls(), IsEmpty());
  EXPECT_THAT(diary.Take(), IsEmpty());
}

constexpr wchar_t kUserWaitEnds[] = L"startup_task: terminated (Is Real User Session) - 0 / 0";

INSTANTIATE_TEST_SUITE_P(
    Waits, DestructionTest,
    testing::Values(Destruction{"ForOobe", 10h, true, 90'500ms,
                                At(90, {L"startup_task: terminated (OOBE Completed test)"})},
                    Destruction{"ForAUserAndBeforeTheBootIsLookedAt", 0s, false, 4'500ms,
                                At(4, {kUserWaitEnds}) +
                                    Lines{L"4 warning|CheckToSendWakeupEvent - terminated"}},
                    Destruction{"ForAUserOfEither", 0s, false, 500'500ms,
                                At(500, {kUserWaitEnds}) +
                                    Lines{L"500 warning|CheckToSendWakeupEvent - terminated"}},
                    Destruction{"ForTheNextAttempt", 0s, true, 1'800'500ms,
                                At(1800, {L"startup_task: terminated"})}),
    [](const auto& row) { return row.param.name; });

// A service that goes while its start-up task is busy leaves nobody who would end what that makes.
TEST_F(ServiceLivesTest, NoPackageIsWatchedForAServiceThatIsGone) {
  SetUpLongAgo();
  InstallApp(L"App");
  ASSERT_EQ(host.Execute(7,
                         LR"({"catalogEvent":5,"catalogAction":1,"packageFamilyName":)"
                         LR"("App_r4x2m8kq7tn3b","catalogActionParams":{"path":"C:\\a.exe"}})")
                .result,
            0U);
  host.service->OnSessionChange(6);
  Start(0s);
  EXPECT_EQ(machine.packages.Handlers(L"ann"), 1U);

  machine.firmware.SetTamper([this](const std::wstring&, tagVARIANT&) { host.End(); });
  host.Renew();
  Start(0s);
  EXPECT_EQ(host.service, nullptr);
  EXPECT_EQ(machine.packages.Handlers(L"ann"), 0U);
  Tessel::Server::Services::Orvane::PackageCatalogEventManager::clear_events();
}

TEST_F(ServiceLivesTest, OnlyAResumeOfAMachineThatLeftSModeBringsItsWorkAbout) {
  static constexpr struct {
    std::uint32_t event;
    int first;
    int current;
    const wchar_t* resume;  // its name in the log
    bool works;
  } kCases[] = {
      {10, 2, 0, L"", false},  // power status
      {7, 0, 0, L"PBT_APMRESUMESUSPEND", false},
      {18, 2, 2, L"PBT_APMRESUMEAUTOMATIC", false},
      {7, 2, 0, L"PBT_APMRESUMESUSPEND", true},
      {18, 2, 0, L"PBT_APMRESUMEAUTOMATIC", true},
  };
  const PrivateLockdownPolicy policy;
  int restarts = 0;
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::Message() << c.event << " after " << c.first << " in " << c.current);
    machine.system.SetLockdownMode(c.current);
    Storage().mergeMember(kDocument, kFirstMode, Element::Int32(c.first));
    Storage().mergeMember(kDocument, "ExecutedMcAfeeStub", Element::Boolean(true));
    host.service->power_event_task(c.event);
    const Lines lines = diary.Take();
    EXPECT_THAT(lines, Contains(L"0 info|power_event_task::PEVX::Enter"));
    EXPECT_THAT(lines, Contains(HasSubstr(L"::PBT_")).Times(*c.resume == L'\0' ? 0 : 1));
    EXPECT_THAT(lines, Contains(EndsWith(c.resume)));
    EXPECT_EQ(machine.appServices.Restarts(), ++restarts);
    // There is neither registration data to copy nor a preloaded program to start.
    EXPECT_THAT(lines, Contains(HasSubstr(L"Error while copying source file ")).Times(c.works));
    EXPECT_EQ(Storage().readDocument(kDocument).Find("ExecutedMcAfeeStub")->AsBoolean(), !c.works);
  }
}

TEST_F(ServiceLivesTest, WithoutAStoreNothingIsKnownOfSMode) {
  host.BlockStore();
  host.service->power_event_task(7);
  EXPECT_EQ(machine.appServices.Restarts(), 1);
  const Lines lines = host.log.Lines();
  EXPECT_THAT(
      lines,
      Contains(L"error|Could not retrive OrvaneService for WindowsModeCheckBehavior").Times(2));
  EXPECT_THAT(lines, Not(Contains(HasSubstr(L"Error while copying"))));
}

}  // namespace
}  // namespace Vx::Tests
