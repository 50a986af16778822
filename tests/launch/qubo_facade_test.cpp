#include "launch/qubo_facade.h"

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "launch/resume_world.h"
#include "platform/machine.h"
#include "support/fake_app_services.h"
#include "support/fake_console.h"
#include "support/log_capture.h"
#include "support/private_local_machine.h"
#include "support/probe.h"
#include "support/temp_folder.h"

namespace Vx::Tessel::Server::Services::Orvane::Qubo {
namespace {

using World = Tests::ResumeWorld;
using State = World::State;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr wchar_t kQuboFamily[] = L"7C3B9E40.Qubo_r4x2m8kq7tn3b";
constexpr wchar_t kLumoFamily[] = L"7C3B9E40.VxLumos_r4x2m8kq7tn3b";
constexpr wchar_t kQuboName[] = L"7C3B9E40.Qubo_2.0.0.0_x64__r4x2m8kq7tn3b";
constexpr wchar_t kLumoName[] = L"7C3B9E40.VxLumos_1.1.0.0_x64__r4x2m8kq7tn3b";
constexpr wchar_t kAliases[] = L"C:\\Users\\ann\\AppData\\Local\\Microsoft\\WindowsApps\\";

class WorldFactory final : public QuboDataAccessFactory {
 public:
  explicit WorldFactory(const World& of) : world(of) {}
  std::shared_ptr<Base::ApplicationLaunchCriteriaDataAccess>
  CreateApplicationLaunchCriteriaDataAccess(const std::string& key) const override {
    return std::make_shared<Tests::WorldMark>(world, key);
  }

 private:
  const World& world;
};

std::unique_ptr<QuboFacade> FacadeOf(const World& world, bool force = false) {
  using Tests::WorldBehavior;
  using Tests::WorldSoftware;
  return std::make_unique<QuboFacade>(
      std::make_shared<WorldFactory>(world),
      std::make_unique<WorldSoftware>(world.firstPreloaded, world.firstInstalled),
      std::make_unique<WorldSoftware>(world.secondPreloaded, world.secondInstalled),
      std::make_unique<WorldBehavior>(world), std::make_unique<WorldBehavior>(world),
      std::make_unique<WorldBehavior>(world), QuboLaunchOverride(force));
}

class QuboFacadeTest : public ::testing::Test {
 protected:
  QuboFacadeTest() { console.installed = {{kQuboFamily, kQuboName}, {kLumoFamily, kLumoName}}; }

  Tests::PrivateStore store;
  Tests::FakeConsole console;
  Platform::MachineScope scope{[this](Platform::Machine& machine) { console.Install(machine); }};
  Tests::LogCapture log;
};

TEST_F(QuboFacadeTest, ResumeLaunchesOnceAndMarksTheReason) {
  using Point = QuboStartingPoint;
  const std::wstring determining = L"info|Determining if the UWP has to auto-launch.";
  const std::wstring saving = L"info|Saving skip state for qubo_autolaunch_";
  const std::wstring result = L"info|Result of launching UWP was ";
  const World software{.firstPreloaded = true, .wasInSMode = true, .launches = false};
  const World registration{.isInSMode = true, .registration = State::SkippedOobe};
  const struct {
    Point point;
    bool force;
    World world;
    std::vector<std::string> done;
    std::vector<std::wstring> lines;
  } cases[] = {
      {Point::None, false, {}, {}, {determining}},
      {Point::Forced,
       true,
       software,
       {"launch"},
       {L"info|Forcing to launch the UWP.", result + L"0"}},
      {Point::Software,
       false,
       software,
       {"launch", "mark qubo_autolaunch_software_happened"},
       {determining, saving + L"software_happened", result + L"0"}},
      {Point::Registration,
       false,
       registration,
       {"launch", "mark qubo_autolaunch_registration_happened"},
       {determining, saving + L"registration_happened", result + L"1"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.point));
    const auto facade = FacadeOf(c.world, c.force);
    const auto explained = facade->ExplainResume();
    EXPECT_EQ(explained.startingPoint, c.point);
    EXPECT_EQ(explained.answers.empty(), c.force);  // what is forced asks nothing
    EXPECT_THAT(c.world.done, IsEmpty());

    log.Clear();
    EXPECT_EQ(facade->LaunchUwpWhenComingBackFromSleepIfNeeded(nullptr), c.point);
    EXPECT_EQ(c.world.done, c.done);
    EXPECT_EQ(log.Lines(), c.lines);
  }
}

TEST_F(QuboFacadeTest, ResumeRegistersTheAppBeforeItDecides) {
  const World world;
  EXPECT_EQ(FacadeOf(world)->LaunchUwpWhenComingBackFromSleepIfNeeded(), QuboStartingPoint::None);
  EXPECT_THAT(log.Lines(), Contains(L"info|Checking if UWP needs to be registered for PC\\ann"));
  EXPECT_THAT(world.done, IsEmpty());
}

TEST_F(QuboFacadeTest, TheForcingValueCountsByBeingThereAlone) {
  Tests::PrivateLocalMachine registry;
  registry.Set(L"SOFTWARE\\Vx\\Tessel", L"another", REG_SZ, {});
  EXPECT_EQ(QuboFacade().ExplainResume().rule, ResumeRule::RegistrationNotSkipped);

  const struct {
    DWORD type;
    std::vector<BYTE> data;
  } cases[] = {{REG_DWORD, {0, 0, 0, 0}}, {REG_NONE, {}}, {REG_SZ, {'n', 0, 'o'}}};
  std::size_t resumes = 0;
  for (const auto& c : cases) {
    registry.Set(L"SOFTWARE\\Vx\\Tessel", L"qubo_force_launch_logic_after_sleep", c.type, c.data);
    EXPECT_EQ(QuboFacade().LaunchUwpWhenComingBackFromSleepIfNeeded(), QuboStartingPoint::Forced);
    EXPECT_THAT(console.started, SizeIs(++resumes));
  }
}

TEST_F(QuboFacadeTest, AnswersTheConsoleUserAsDomainAndName) {
  std::wstring name;
  EXPECT_TRUE(QuboFacade().GetCurrentUserName(name));
  EXPECT_EQ(name, L"PC\\ann");

  console.FailCall(5);  // after the token, its copy, the impersonation and two texts
  EXPECT_TRUE(QuboFacade().GetCurrentUserName(name));
  EXPECT_EQ(console.calls[5], "Revert");
  EXPECT_EQ(log.Lines().back(),
            L"warning|Problem while reverting the impersonation while collecting data to register "
            L"UWP.");

  console.sessionApi = false;
  log.Clear();
  EXPECT_FALSE(QuboFacade().GetCurrentUserName(name));
  EXPECT_THAT(log.Lines(),
              ElementsAre(L"error|Problem in QuboFacade::GetCurrentUserName(): "
                          L"WTSQuerySessionInformation is not available on this platform"));
}

TEST_F(QuboFacadeTest, NamesTheNewerPackageAndElseTheOlder) {
  constexpr wchar_t kTrying[] =
      L"warning|Attempt to get full package full name for Qubo failed. Trying LumoS.";
  constexpr wchar_t kFailed[] = L"warning|Attempt to get full package full name for LumoS failed.";
  constexpr wchar_t kActing[] = L"info|Attempting to impersonate logged in user.";
  std::wstring fullName;
  EXPECT_TRUE(QuboFacade().GetPackageFullName(fullName));
  EXPECT_EQ(fullName, kQuboName);

  console.installed.erase(kQuboFamily);
  log.Clear();
  EXPECT_TRUE(QuboFacade().GetPackageFullName(fullName));
  EXPECT_EQ(fullName, kLumoName);
  EXPECT_THAT(log.Lines(), ElementsAre(kActing, kTrying));

  console.installed.clear();
  log.Clear();
  EXPECT_FALSE(QuboFacade().GetPackageFullName(fullName));
  EXPECT_EQ(fullName, L"");
  EXPECT_THAT(log.Lines(), ElementsAre(kActing, kTrying, kFailed));
}

TEST_F(QuboFacadeTest, RegistersOnlyAStagedPackageThatTheUserLacks) {
  constexpr wchar_t kChecking[] = L"info|Checking if UWP needs to be registered for PC\\ann";
  EXPECT_TRUE(QuboFacade().RegisterApp(L"PC\\ann", kQuboName));
  EXPECT_THAT(log.Lines(), ElementsAre(kChecking, L"info|No need to register the UWP."));

  console.staged = {kQuboName};
  log.Clear();
  EXPECT_TRUE(QuboFacade().RegisterApp());
  EXPECT_THAT(console.registered, ElementsAre(kQuboName));
  EXPECT_THAT(log.Lines(), Contains(L"info|Need to enforce the registration of the UWP."));
  EXPECT_THAT(console.askedSids, ElementsAre(L"SID of PC\\ann"));

  console.registered.clear();
  console.FailCall(0);
  EXPECT_FALSE(QuboFacade().RegisterApp(L"PC\\ann", kQuboName));
  EXPECT_EQ(log.Lines().back(),
            L"error|Problem while running the operation of check/register of the UWP application. "
            L"refused");
}

TEST_F(QuboFacadeTest, TellsTheNewerAppAndElseTheOlderThatSetUpIsOver) {
  const std::wstring message = L" { \"command\": \"oobe_completed\" }";
  const std::wstring qubo = std::wstring(kQuboFamily) + L"/Vx.Kestra.MachineEventHandler" + message;
  const std::wstring lumo = std::wstring(kLumoFamily) + L"/Vx.Lumos.MachineEventHandler" + message;
  const std::wstring failed = L"warning|OOBE AppService for Qubo failed. Attempting Vx Lumo's one.";
  const std::wstring unreachable = L"error|Could not communicate with AppService for OOBE";
  const std::wstring lumoResult = L"info|Attempt to launch Vx Lumo's AppService (OOBE) was ";
  constexpr int kThrows = -1;
  const struct {
    const char* name;
    std::vector<int> statuses;  // what the apps answer in turn
    std::vector<std::wstring> sent;
    std::vector<std::wstring> lines;
  } cases[] = {
      {"the newer", {0}, {qubo}, {L"info|OOBE AppService for Qubo was ok."}},
      {"the older", {4, 0}, {qubo, lumo}, {failed, lumoResult + L"1"}},
      {"neither", {4, 1}, {qubo, lumo}, {failed, lumoResult + L"0"}},
      {"both throw", {kThrows, kThrows}, {}, {unreachable, failed, unreachable, lumoResult + L"0"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Tests::FakeAppServices services;
    std::size_t asked = 0;
    services.onSend = [&] {
      services.status = c.statuses.at(asked++);
      if (services.status == kThrows) throw std::runtime_error("gone");
    };
    const Platform::MachineScope told(
        [&](Platform::Machine& machine) { machine.appServices = &services; });
    const QuboFacade facade;
    log.Clear();
    EXPECT_EQ(facade.CallAppServiceAfterOobe(), c.statuses.back() == 0);
    EXPECT_EQ(services.Sent(), c.sent);
    EXPECT_EQ(log.Lines(), c.lines);
  }
}

TEST_F(QuboFacadeTest, AMarkIsKeptForTheNextResume) {
  EXPECT_TRUE(QuboFacade().SkipAutoLaunchCriteria("qubo_autolaunch_software_happened"));
  EXPECT_TRUE(QuboFacade().SkipAutoLaunchCriteria("any other key"));
  EXPECT_TRUE(QuboLaunchCriteriaDataAccess("qubo_autolaunch_software_happened").ShouldBeSkipped());
  EXPECT_TRUE(QuboLaunchCriteriaDataAccess("any other key").ShouldBeSkipped());
  EXPECT_FALSE(QuboLaunchCriteriaDataAccess("qubo_wakeup_for_smode_skip").ShouldBeSkipped());

  // Without a store nothing is marked and nothing can be.
  store.Block();
  EXPECT_FALSE(QuboFacade().SkipAutoLaunchCriteria("any other key"));
  EXPECT_FALSE(QuboLaunchCriteriaDataAccess("any other key").ShouldBeSkipped());
}

TEST_F(QuboFacadeTest, TellsPlaceholdersOfThePredecessorByItsVersion) {
  static constexpr struct {
    std::uint64_t version;
    bool stub;
    bool nubo;
  } kCases[] = {
      {0x0001'0000'FFFF'FFFF, true, false},  {0x0001'0001'0000'0000, false, true},
      {0x0002'0001'0000'0000, false, false}, {0x0001'0002'0000'0000, false, false},
      {0x0101'0000'0000'0000, false, false}, {0, false, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.version);
    console.version = c.version;
    EXPECT_EQ(QuboFacade().IsStubClient(), c.stub);
    EXPECT_EQ(QuboFacade().IsNuboClient(), c.nubo);
  }
  console.version = 0x0001'0000'0000'0000;
  console.installed.clear();
  EXPECT_FALSE(QuboFacade().IsStubClient());
}

TEST_F(QuboFacadeTest, LaunchesTheNewerAppAndElseTheOlder) {
  const std::wstring qubo = std::wstring(kAliases) + L"Qubo.exe";
  const std::wstring lumo = std::wstring(kAliases) + L"Vx.Lumos.exe";
  EXPECT_TRUE(QuboFacade().LaunchUwpForOobe());
  ASSERT_THAT(console.started, SizeIs(1));
  EXPECT_EQ(console.started[0].application, qubo);
  EXPECT_EQ(console.started[0].commandLine, qubo);
  EXPECT_EQ(console.started[0].workingDirectory, std::wstring(L"C:\\Apps\\") + kQuboName);

  console.notStarting = {qubo};
  EXPECT_TRUE(QuboFacade().LaunchUwpWithParameter(L"page=1"));
  ASSERT_THAT(console.started, SizeIs(2));
  EXPECT_EQ(console.started[1].application, lumo);
  EXPECT_EQ(console.started[1].commandLine, L"\"" + lumo + L"\" page=1");

  console.notStarting = {qubo, lumo};
  EXPECT_FALSE(QuboFacade().LaunchUwpForOobe());
}

// A real program of a real user, started through its alias: no parameter names another program.
TEST_F(QuboFacadeTest, AParameterReachesTheStartedAppAsItWasGiven) {
  const Tests::TempFolder profile;
  const auto aliases = profile.Path() / "AppData" / "Local" / "Microsoft" / "WindowsApps";
  std::filesystem::create_directories(aliases);
  std::filesystem::create_directories(profile.Path() / kQuboName);
  std::filesystem::copy_file(Tests::ProbePath(), aliases / "Qubo.exe");
  console.userVariables = {{L"%userprofile%", profile.Path().wstring()}};
  console.appsFolder = profile / L"";
  console.realProcesses = true;

  const std::wstring parameter = L"one \"two three\" & \u00E4 \"C:\\evil.exe";
  EXPECT_TRUE(QuboFacade().LaunchUwpWithParameter(parameter));
  const auto report = Tests::WaitForProbe((aliases / "Qubo.exe.out").wstring());
  ASSERT_TRUE(report.has_value());
  EXPECT_THAT(report->arguments,
              ElementsAre(L"one", L"two three", L"&", L"\u00E4", L"C:\\evil.exe"));
  EXPECT_EQ(report->workingDirectory, profile / kQuboName);
  EXPECT_EQ(report->commandLine, L"\"" + (aliases / "Qubo.exe").wstring() + L"\" " + parameter);
}

}  // namespace
}  // namespace Vx::Tessel::Server::Services::Orvane::Qubo
