#include "launch/qubo_facade.h"

#include <deque>
#include <filesystem>
#include <functional>
#include <stdexcept>

#include <gmock/gmock.h>

#include "storage/cap_data_store.h"
#include "support/handle_gauge.h"
#include "support/machine_test.h"
#include "support/memory_shortage.h"
#include "support/probe.h"

namespace Vx::Tessel::Server::Services::Orvane::Qubo {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::SizeIs;

constexpr wchar_t kQuboFamily[] = L"7C3B9E40.Qubo_r4x2m8kq7tn3b";
constexpr wchar_t kLumoFamily[] = L"7C3B9E40.VxLumos_r4x2m8kq7tn3b";
constexpr wchar_t kQuboName[] = L"7C3B9E40.Qubo_2.0.0.0_x64__r4x2m8kq7tn3b";
constexpr wchar_t kNewerName[] = L"7C3B9E40.Qubo_3.0.0.0_x64__r4x2m8kq7tn3b";
constexpr wchar_t kLumoName[] = L"7C3B9E40.VxLumos_1.1.0.0_x64__r4x2m8kq7tn3b";
constexpr wchar_t kQubo[] = L"C:\\Users\\ann\\AppData\\Local\\Microsoft\\WindowsApps\\Qubo.exe";
constexpr wchar_t kLumo[] = L"C:\\Users\\ann\\AppData\\Local\\Microsoft\\WindowsApps\\Vx.Lumos.exe";
constexpr wchar_t kChecking[] = L"info|Checking if UWP needs to be registered for PC\\ann";

class QuboFacadeTest : public Tests::StoreTest {
 protected:
  QuboFacadeTest() {
    machine.users.Add(L"bob");
    machine.packages.Install({kQuboFamily, kQuboName, {}}, L"ann");
    machine.packages.Install({kLumoFamily, kLumoName, {}}, L"ann");
    machine.packages.Install({kLumoFamily, kLumoName, {}}, L"bob");
  }
};

TEST_F(QuboFacadeTest, ResumeLaunchesOnceForEachReasonAndWheneverItIsForced) {
  using Point = QuboStartingPoint;
  const Tests::TempFolder programs;
  const Tests::EnvironmentOverride programFiles(L"ProgramFiles", programs.Path().wstring());
  const auto nothing = [] {};
  const std::wstring determining = L"info|Determining if the UWP has to auto-launch.";
  const std::wstring forcing = L"info|Forcing to launch the UWP.";
  const std::wstring saving = L"info|Saving skip state for qubo_autolaunch_";
  const struct {
    std::function<void()> before;
    Point point;
    std::wstring line;
  } cases[] = {
      {nothing, Point::None, determining},
      {[] {
         Storage::CapDataStore().persist("registration_full_sent", "skipped_oobe");
         Storage::CapDataStore().mergeMember("OrvaneServiceDocument", "FirstSystemEnforcementMode",
                                             Storage::BsonElement::Int32(2));
       },
       Point::Registration, saving + L"registration_happened"},
      {nothing, Point::None, determining},
      {[&] { std::filesystem::create_directories(programs.Path() / "vx" / "SentraPre"); },
       Point::Software, saving + L"software_happened"},
      {nothing, Point::None, determining},
      {[&] {
         machine.registry.SetText(L"SOFTWARE\\Vx\\Tessel", L"qubo_force_launch_logic_after_sleep",
                                  L"no");
       },
       Point::Forced, forcing},
      {nothing, Point::Forced, forcing},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    c.before();
    const std::size_t before = machine.processes.Started().size();
    const auto explained = QuboFacade().ExplainResume();
    EXPECT_EQ(explained.startingPoint, c.point);
    EXPECT_EQ(explained.answers.empty(), c.point == Point::Forced);  // a forced launch asks nothing
    log.Clear();
    EXPECT_EQ(QuboFacade().LaunchUwpWhenComingBackFromSleepIfNeeded(), c.point);
    EXPECT_TRUE(log.Has(kChecking));
    EXPECT_TRUE(log.Has(c.line));
    const bool launched = c.point != Point::None;
    EXPECT_EQ(log.Lines().back() == L"info|Result of launching UWP was 1", launched);
    EXPECT_THAT(machine.processes.Started(), SizeIs(before + (launched ? 1 : 0)));
  }
  machine.faults.FailNamed("Processes.Start");
  QuboFacade().LaunchUwpWhenComingBackFromSleepIfNeeded();
  EXPECT_EQ(log.Lines().back(), L"info|Result of launching UWP was 0");
}

TEST_F(QuboFacadeTest, AnswersTheConsoleUserAsDomainAndName) {
  std::wstring name;
  machine.faults.FailNamed("Sessions.Revert");
  EXPECT_TRUE(QuboFacade().GetCurrentUserName(name));
  EXPECT_EQ(name, L"PC\\ann");
  EXPECT_EQ(log.Lines().back(),
            L"warning|Problem while reverting the impersonation while collecting data to register "
            L"UWP.");
  machine.system.RemoveApiSet(Platform::kSessionApiSet);
  EXPECT_FALSE(QuboFacade().GetCurrentUserName(name));
  EXPECT_EQ(log.Lines().back(),
            L"error|Problem in QuboFacade::GetCurrentUserName(): WTSQuerySessionInformation is not "
            L"available on this platform");
}

TEST_F(QuboFacadeTest, NamesTheNewerPackageAndElseTheOlder) {
  constexpr wchar_t kTrying[] =
      L"warning|Attempt to get full package full name for Qubo failed. Trying LumoS.";
  constexpr wchar_t kFailed[] = L"warning|Attempt to get full package full name for LumoS failed.";
  constexpr wchar_t kActing[] = L"info|Attempting to impersonate logged in user.";
  const struct {
    const wchar_t* user;
    const wchar_t* fullName;
    std::vector<std::wstring> lines;
  } cases[] = {
      {L"ann", kQuboName, {kActing}},
      {L"bob", kLumoName, {kActing, kTrying}},
      {L"cas", L"", {kActing, kTrying, kFailed}},
  };
  for (const auto& c : cases) {
    machine.users.LogOn(c.user);
    log.Clear();
    std::wstring fullName;
    EXPECT_EQ(QuboFacade().GetPackageFullName(fullName), c.fullName[0] != 0);
    EXPECT_EQ(fullName, c.fullName);
    EXPECT_EQ(log.Lines(), c.lines);
  }
}

TEST_F(QuboFacadeTest, RegistersOnlyAStagedPackageThatTheUserLacks) {
  EXPECT_TRUE(QuboFacade().RegisterApp());
  EXPECT_TRUE(log.Has(kChecking));
  EXPECT_EQ(log.Lines().back(), L"info|No need to register the UWP.");

  machine.packages.Stage({kQuboFamily, kNewerName, {}});
  log.Clear();
  EXPECT_TRUE(QuboFacade().RegisterApp(L"PC\\ann", kNewerName));
  EXPECT_THAT(log.Lines(),
              ElementsAre(kChecking, L"info|Need to enforce the registration of the UWP."));
  EXPECT_THAT(machine.packages.FindForUser(machine.users.Find(L"ann")->sid, kQuboFamily),
              Contains(kNewerName));

  machine.faults.FailNamed("Packages.FindForAllUsers");
  EXPECT_FALSE(QuboFacade().RegisterApp(L"PC\\ann", kQuboName));
  EXPECT_EQ(log.Lines().back(),
            L"error|Problem while running the operation of check/register of the UWP application. "
            L"refused failed with 0x80070005");
}

TEST_F(QuboFacadeTest, TellsTheNewerAppAndElseTheOlderThatSetUpIsOver) {
  const std::wstring message = L" { \"command\": \"oobe_completed\" }";
  const std::wstring qubo = std::wstring(kQuboFamily) + L"/Vx.Kestra.MachineEventHandler" + message;
  const std::wstring lumo = std::wstring(kLumoFamily) + L"/Vx.Lumos.MachineEventHandler" + message;
  const std::wstring failed = L"warning|OOBE AppService for Qubo failed. Attempting Vx Lumo's one.";
  const std::wstring unreachable = L"error|Could not communicate with AppService for OOBE";
  const std::wstring result = L"info|Attempt to launch Vx Lumo's AppService (OOBE) was ";
  const struct {
    std::deque<Simulator::SimulatedAppServices::Reply> replies;
    bool gone;  // whether the apps vanish while they are notified
    std::vector<std::wstring> lines;
  } cases[] = {
      {{{0, L""}}, false, {L"info|OOBE AppService for Qubo was ok."}},
      {{{4, L""}, {0, L""}}, false, {failed, result + L"1"}},
      {{{4, L""}, {1, L""}}, false, {failed, result + L"0"}},
      {{}, true, {unreachable, failed, unreachable, result + L"0"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    machine.appServices.SetReplies(c.replies);
    machine.timeline.SetListener([&](const auto&) {
      if (c.gone) throw std::runtime_error("gone");
    });
    log.Clear();
    EXPECT_EQ(QuboFacade().CallAppServiceAfterOobe(), !c.gone && c.replies.back().first == 0);
    EXPECT_EQ(log.Lines(), c.lines);
  }
  EXPECT_THAT(Sent(), ElementsAre(qubo, qubo, lumo, qubo, lumo, qubo, lumo));
}

TEST_F(QuboFacadeTest, WithoutAStoreNothingIsMarkedAndNothingCanBe) {
  EXPECT_TRUE(QuboFacade().SkipAutoLaunchCriteria("a key"));
  store.Block();
  EXPECT_FALSE(QuboFacade().SkipAutoLaunchCriteria("a key"));
  EXPECT_FALSE(QuboLaunchCriteriaDataAccess("a key").ShouldBeSkipped());
}

TEST_F(QuboFacadeTest, TellsPlaceholdersOfThePredecessorByItsVersion) {
  static constexpr struct {
    const wchar_t* version;  // empty if the user has no such package
    bool stub;
    bool nubo;
  } kCases[] = {
      {L"1.0.65535.65535", true, false}, {L"1.1.0.0", false, true},    {L"2.1.0.0", false, false},
      {L"1.2.0.0", false, false},        {L"257.0.0.0", false, false}, {L"", false, false},
  };
  for (const auto& c : kCases) {
    const std::wstring version = c.version;
    SCOPED_TRACE(testing::PrintToString(version));
    const std::wstring user = L"user of " + version;
    machine.users.LogOn(user);
    const std::wstring fullName = L"7C3B9E40.VxLumos_" + version + L"_x64__r4x2m8kq7tn3b";
    if (!version.empty()) machine.packages.Install({kLumoFamily, fullName, {}}, user);
    EXPECT_EQ(QuboFacade().IsStubClient(), c.stub);
    EXPECT_EQ(QuboFacade().IsNuboClient(), c.nubo);
  }
}

TEST_F(QuboFacadeTest, LaunchesTheNewerAppAndElseTheOlder) {
  EXPECT_TRUE(QuboFacade().LaunchUwpForOobe());
  machine.processes.Refuse(kQubo, 5);
  EXPECT_TRUE(QuboFacade().LaunchUwpWithParameter(L"page=1"));
  const auto started = machine.processes.Started();
  ASSERT_THAT(started, SizeIs(2));
  EXPECT_EQ(started[0].start.commandLine, kQubo);
  EXPECT_EQ(started[1].start.application, kLumo);
  EXPECT_EQ(started[1].start.commandLine, L"\"" + std::wstring(kLumo) + L"\" page=1");
  machine.processes.Refuse(kLumo, 5);
  EXPECT_FALSE(QuboFacade().LaunchUwpForOobe());
}

// Starts a real program of a real user through its alias. No parameter names another program.
TEST_F(QuboFacadeTest, AParameterReachesTheStartedAppAsItWasGiven) {
  const Tests::TempFolder profile;
  const auto aliases = profile.Path() / "AppData" / "Local" / "Microsoft" / "WindowsApps";
  std::filesystem::create_directories(aliases);
  std::filesystem::copy_file(Tests::ProbePath(), aliases / "Qubo.exe");
  const Tests::EnvironmentOverride variable(L"USERPROFILE", profile.Path().wstring());
  machine.packages.Install({kQuboFamily, kQuboName, profile.Path().wstring()}, L"ann");
  machine.users.Impersonate(
      machine.users.TokenOf(L"ann")->get());  // the query is about this user's packages
  const Platform::MachineScope real([](Platform::Machine& platform) {
    platform.sessions = Platform::WindowsMachine().sessions;
    platform.processes = Platform::WindowsMachine().processes;
  });

  const std::wstring parameter = L"one \"two three\" & \u00E4 \"C:\\evil.exe";
  EXPECT_TRUE(QuboFacade().LaunchUwpWithParameter(parameter));
  const auto report = Tests::WaitForProbe((aliases / "Qubo.exe.out").wstring());
  ASSERT_TRUE(report.has_value());
  EXPECT_THAT(report->arguments,
              ElementsAre(L"one", L"two three", L"&", L"\u00E4", L"C:\\evil.exe"));
  EXPECT_EQ(report->workingDirectory, profile.Path().wstring());
  EXPECT_EQ(report->commandLine, L"\"" + (aliases / "Qubo.exe").wstring() + L"\" " + parameter);
}

TEST_F(QuboFacadeTest, NeitherRegistersNorNotifiesWithAnExceptionWhenMemoryRunsOut) {
  const QuboFacade facade;
  const std::function<void()> operations[] = {[&] { facade.RegisterApp(); },
                                              [&] { facade.CallAppServiceAfterOobe(); }};
  machine.faults.FailNamed("Packages.AccountSid");
  const auto walk = [&] {
    for (const auto& operation : operations) {
      for (const auto kind : {Tests::Shortage::Once, Tests::Shortage::Lasting}) {
        const std::size_t allocations = Tests::FailEachAllocation(
            kind, operation, [&] { EXPECT_FALSE(machine.users.Acting()); });
        EXPECT_GT(allocations, 0U);
      }
    }
  };
  walk();  // the runtime creates what it then keeps
  const auto handles = Tests::HandleGauge();
  walk();
  EXPECT_EQ(Tests::HandleGauge(), handles);
}

}  // namespace
}  // namespace Vx::Tessel::Server::Services::Orvane::Qubo
