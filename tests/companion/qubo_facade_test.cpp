#include "companion/qubo_facade.h"

#include "storage/cap_data_store.h"
#include "support/machine_test.h"
#include "support/memory_shortage.h"
#include "support/test.h"

namespace Vx::Tessel::Server::Services::Orvane::Qubo {
namespace {

constexpr wchar_t kQuboFamily[] = L"7C3B9E40.Qubo_r4x2m8kq7tn3b";
constexpr wchar_t kLumoFamily[] = L"7C3B9E40.VxLumos_r4x2m8kq7tn3b";
constexpr wchar_t kQuboName[] = L"7C3B9E40.Qubo_2.0.0.0_x64__r4x2m8kq7tn3b";
constexpr wchar_t kNewerName[] = L"7C3B9E40.Qubo_3.0.0.0_x64__r4x2m8kq7tn3b";
constexpr wchar_t kLumoName[] = L"7C3B9E40.VxLumos_1.1.0.0_x64__r4x2m8kq7tn3b";
constexpr wchar_t kChecking[] = L"info|Checking if UWP needs to be registered for PC\\ann";

class QuboFacadeTest : public Tests::StoreTest {
 protected:
  QuboFacadeTest() {
    machine.packages.Install({kQuboFamily, kQuboName, {}}, L"ann");
    machine.packages.Install({kLumoFamily, kLumoName, {}}, L"ann");
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
  bool refused = false;
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
      {[&] {
         std::filesystem::create_directories(programs.Path() / "vx" / "SentraPre");
         refused = true;  // a refused launch uses up the reason too
       },
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
    if (refused) machine.faults.FailNamed("Processes.Start");
    const auto explained = QuboFacade().ExplainResume();
    EXPECT_EQ(explained.startingPoint, c.point);
    EXPECT_EQ(explained.answers.empty(), c.point == Point::Forced);
    log.Clear();
    EXPECT_EQ(QuboFacade().LaunchUwpWhenComingBackFromSleepIfNeeded(), c.point);
    EXPECT_TRUE(log.Has(kChecking));
    EXPECT_TRUE(log.Has(c.line));
    const std::size_t launched = c.point == Point::None || refused ? 0 : 1;
    const std::wstring result = L"info|Result of launching UWP was " + std::to_wstring(launched);
    EXPECT_EQ(log.Lines().back() == result, c.point != Point::None);
    EXPECT_THAT(machine.processes.Started(), SizeIs(before + launched));
    machine.faults.Clear();
    refused = false;
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
}

TEST_F(QuboFacadeTest, AnAppThatCannotBeReachedGetsNoMessage) {
  const std::wstring unreachable = L"error|Could not communicate with AppService for OOBE";
  machine.timeline.SetListener([](const auto&) { throw std::runtime_error("gone"); });
  EXPECT_FALSE(QuboFacade().CallAppServiceAfterOobe());
  EXPECT_THAT(
      log.Lines(),
      ElementsAre(unreachable,
                  L"warning|OOBE AppService for Qubo failed. Attempting Vx Lumo's one.",
                  unreachable, L"info|Attempt to launch Vx Lumo's AppService (OOBE) was 0"));
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

// Starts a real program through its alias. The parameter must not select another program.
TEST_F(QuboFacadeTest, AParameterReachesTheStartedAppAsItWasGiven) {
  const Tests::TempFolder profile;
  const auto aliases = profile.Path() / "AppData" / "Local" / "Microsoft" / "WindowsApps";
  std::filesystem::create_directories(aliases);
  std::filesystem::copy_file(Tests::ProbePath(), aliases / "Qubo.exe");
  const Tests::EnvironmentOverride variable(L"USERPROFILE", profile.Path().wstring());
  machine.packages.Install({kQuboFamily, kQuboName, profile.Path().wstring()}, L"ann");
  machine.users.Impersonate(machine.users.TokenOf(L"ann")->get());  // her packages are queried
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
  walk();  // makes the runtime's permanent allocations
  const auto handles = Tests::HandleGauge();
  walk();
  EXPECT_EQ(Tests::HandleGauge(), handles);
}

}  // namespace
}  // namespace Vx::Tessel::Server::Services::Orvane::Qubo
