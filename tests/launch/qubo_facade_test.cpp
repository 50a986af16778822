#include "launch/qubo_facade.h"

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "launch/aurelo.h"
#include "launch/mcafee_helper.h"
#include "launch/qubo_behaviors.h"
#include "launch/registration_data.h"
#include "launch/software_check_behaviors.h"
#include "platform/app_services.h"
#include "storage/cap_data_store.h"
#include "support/fake_console.h"
#include "support/handle_gauge.h"
#include "support/log_capture.h"
#include "support/private_local_machine.h"
#include "support/temp_folder.h"

namespace Vx::Tessel::Server::Services::Orvane::Qubo {
namespace {

using State = RegistrationHelper::RegistrationState;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using Tests::FakeConsole;

constexpr wchar_t kQuboFamily[] = L"7C3B9E40.Qubo_r4x2m8kq7tn3b";
constexpr wchar_t kLumoFamily[] = L"7C3B9E40.VxLumos_r4x2m8kq7tn3b";
constexpr wchar_t kQuboName[] = L"7C3B9E40.Qubo_2.0.0.0_x64__r4x2m8kq7tn3b";
constexpr wchar_t kLumoName[] = L"7C3B9E40.VxLumos_1.1.0.0_x64__r4x2m8kq7tn3b";
constexpr wchar_t kAliases[] = L"C:\\Users\\ann\\AppData\\Local\\Microsoft\\WindowsApps\\";

// What a facade is asked and does, answered from a table.
struct Scene {
  bool force = false;
  bool firstMissing = false;
  bool secondMissing = false;
  bool wasInSMode = false;
  bool isInSMode = false;
  State registration = State::Yes;
  bool softwareUsed = false;
  bool registrationUsed = false;
  bool launches = true;

  std::vector<std::string> marks{};  // keys marked
  int runs = 0;
  int questions = 0;  // to anything but marks
};

class SceneSoftware final : public Base::SoftwareCheckBehavior {
 public:
  SceneSoftware(Scene& of, bool isMissing) : scene(of), missing(isMissing) {}
  bool IsWin32Installed() const override { return !missing; }
  bool IsUwpInstalled() const override { return !missing; }
  bool IsInstalled() const override { return ++scene.questions, !missing; }
  bool IsPreloaded() const override { return ++scene.questions, true; }

 private:
  Scene& scene;
  bool missing;
};

class SceneBehaviors final : public Base::RegistrationCheckBehavior,
                             public Base::ModeCheckBehavior,
                             public Base::ApplicationLaunchBehavior {
 public:
  explicit SceneBehaviors(Scene& of) : scene(of) {}
  State GetState() const override { return ++scene.questions, scene.registration; }
  bool HasBeenInSMode() override { return ++scene.questions, scene.wasInSMode; }
  bool IsInSMode() const override { return ++scene.questions, scene.isInSMode; }
  bool Run(const std::wstring&) const override { return ++scene.runs, scene.launches; }
  bool Run() const override { return Run({}); }

 private:
  Scene& scene;
};

class SceneMark final : public Base::ApplicationLaunchCriteriaDataAccess {
 public:
  SceneMark(Scene& of, std::string storeKey) : scene(of), key(std::move(storeKey)) {}
  bool SaveSkipState(bool skip) const override {
    EXPECT_TRUE(skip);
    scene.marks.push_back(key);
    return true;
  }
  bool ShouldBeSkipped() const override {
    if (key == "qubo_autolaunch_software_happened") return scene.softwareUsed;
    if (key == "qubo_autolaunch_registration_happened") return scene.registrationUsed;
    ADD_FAILURE() << key << " was asked for";
    return true;
  }

 private:
  Scene& scene;
  std::string key;
};

class SceneFactory final : public QuboDataAccessFactory {
 public:
  explicit SceneFactory(Scene& of) : scene(of) {}
  std::shared_ptr<Base::ApplicationLaunchCriteriaDataAccess>
  CreateApplicationLaunchCriteriaDataAccess(const std::string& key) const override {
    return std::make_shared<SceneMark>(scene, key);
  }

 private:
  Scene& scene;
};

std::unique_ptr<QuboFacade> FacadeOf(Scene& scene) {
  return std::make_unique<QuboFacade>(
      std::make_shared<SceneFactory>(scene),
      std::make_unique<SceneSoftware>(scene, scene.firstMissing),
      std::make_unique<SceneSoftware>(scene, scene.secondMissing),
      std::make_unique<SceneBehaviors>(scene), std::make_unique<SceneBehaviors>(scene),
      std::make_unique<SceneBehaviors>(scene), QuboLaunchOverride(scene.force));
}

class QuboFacadeTest : public ::testing::Test {
 protected:
  QuboFacadeTest() { console.installed = {{kQuboFamily, kQuboName}, {kLumoFamily, kLumoName}}; }

  Tests::PrivateStore store;
  FakeConsole console;
  Platform::MachineScope scope{[this](Platform::Machine& machine) { console.Install(machine); }};
  Tests::LogCapture log;
};

// Judged by the rule as one would say it, over every combination of what a resume depends on.
TEST_F(QuboFacadeTest, ResumeLaunchesAndMarksJustWhatTheRuleSays) {
  for (unsigned bits = 0; bits < 256; ++bits) {
    for (const State state :
         {State::Yes, State::No, State::SkippedOobe, State::Pending, State::Unknown}) {
      SCOPED_TRACE(::testing::Message()
                   << "bits " << bits << ", state " << static_cast<int>(state));
      const auto bit = [bits](unsigned n) { return (bits >> n & 1U) != 0; };
      Scene scene{bit(0), bit(1), bit(2), bit(3), bit(4), state, bit(5), bit(6), bit(7)};
      const bool software =
          (scene.firstMissing || scene.secondMissing) && scene.wasInSMode && !scene.softwareUsed;
      const bool registration = state == State::SkippedOobe &&
                                (scene.wasInSMode || scene.isInSMode) && !scene.registrationUsed;
      QuboStartingPoint expected = QuboStartingPoint::None;
      std::vector<std::string> marks;
      if (scene.force) {
        expected = QuboStartingPoint::Forced;
      } else if (software) {
        expected = QuboStartingPoint::Software;
        marks = {"qubo_autolaunch_software_happened"};
      } else if (registration) {
        expected = QuboStartingPoint::Registration;
        marks = {"qubo_autolaunch_registration_happened"};
      }
      const bool launch = expected != QuboStartingPoint::None;

      const auto facade = FacadeOf(scene);
      const auto explained = facade->ExplainResume();
      EXPECT_EQ(explained.startingPoint, expected);
      EXPECT_EQ(scene.runs, 0);
      EXPECT_THAT(scene.marks, IsEmpty());

      log.Clear();
      EXPECT_EQ(facade->LaunchUwpWhenComingBackFromSleepIfNeeded(nullptr), expected);
      EXPECT_EQ(scene.runs, launch ? 1 : 0);
      EXPECT_EQ(scene.marks, marks);
      if (scene.force) {
        EXPECT_EQ(scene.questions, 0);
      }
      std::vector<std::wstring> lines{scene.force
                                          ? L"info|Forcing to launch the UWP."
                                          : L"info|Determining if the UWP has to auto-launch."};
      for (const auto& key : marks) {
        lines.push_back(L"info|Saving skip state for " + std::wstring(key.begin(), key.end()));
      }
      if (launch) {
        lines.push_back(std::wstring(L"info|Result of launching UWP was ") +
                        (scene.launches ? L"1" : L"0"));
      }
      ASSERT_EQ(log.Lines(), lines);
    }
  }
}

TEST_F(QuboFacadeTest, ResumeRegistersTheAppBeforeItDecides) {
  Scene scene;
  EXPECT_EQ(FacadeOf(scene)->LaunchUwpWhenComingBackFromSleepIfNeeded(), QuboStartingPoint::None);
  EXPECT_THAT(log.Lines(), Contains(L"info|Checking if UWP needs to be registered for PC\\ann"));
  EXPECT_THAT(scene.marks, IsEmpty());
}

TEST_F(QuboFacadeTest, TheForcingValueCountsByBeingThereAlone) {
  static const struct {
    const char* name;
    DWORD type;
    std::vector<BYTE> data;
  } kCases[] = {
      {"a zero", REG_DWORD, {0, 0, 0, 0}},
      {"nothing", REG_NONE, {}},
      {"an unterminated text", REG_SZ, {'n', 0, 'o'}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    const std::size_t before = console.started.size();
    Tests::PrivateLocalMachine registry;
    registry.Set(L"SOFTWARE\\Vx\\Tessel", L"qubo_force_launch_logic_after_sleep", c.type, c.data);
    for (int resume = 0; resume < 2; ++resume) {
      EXPECT_EQ(QuboFacade().LaunchUwpWhenComingBackFromSleepIfNeeded(), QuboStartingPoint::Forced);
    }
    EXPECT_THAT(console.started, SizeIs(before + 2));
  }
  Storage::CapDataStore marks;
  EXPECT_FALSE(marks.readBool("qubo_autolaunch_software_happened", false));
  EXPECT_FALSE(marks.readBool("qubo_autolaunch_registration_happened", false));
}

TEST_F(QuboFacadeTest, AMachineWithoutTheValueIsNotForced) {
  Tests::PrivateLocalMachine registry;
  registry.Set(L"SOFTWARE\\Vx\\Tessel", L"another", REG_SZ, {});
  EXPECT_EQ(QuboFacade().ExplainResume().rule, ResumeRule::RegistrationNotSkipped);
}

TEST_F(QuboFacadeTest, AnswersTheConsoleUserAsDomainAndName) {
  std::wstring name;
  EXPECT_TRUE(QuboFacade().GetCurrentUserName(name));
  EXPECT_EQ(name, L"PC\\ann");

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

TEST_F(QuboFacadeTest, AFailedRevertIsWarnedOf) {
  std::wstring name;
  console.FailCall(5);  // after the token, its copy, the impersonation and two texts
  EXPECT_TRUE(QuboFacade().GetCurrentUserName(name));
  ASSERT_EQ(console.calls[5], "Revert");
  EXPECT_THAT(log.Lines(), Contains(L"warning|Problem while reverting the impersonation while "
                                    L"collecting data to register UWP."));
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

  log.Clear();
  EXPECT_TRUE(QuboFacade().RegisterApp(L"PC\\ann", kQuboName));
  EXPECT_THAT(log.Lines(), ElementsAre(kChecking, L"info|No need to register the UWP."));
}

TEST_F(QuboFacadeTest, ARegistrationThatFailsIsLoggedWithItsReason) {
  console.staged = {kQuboName};
  console.FailCall(0);
  EXPECT_FALSE(QuboFacade().RegisterApp(L"PC\\ann", kQuboName));
  EXPECT_THAT(log.Lines(), Contains(L"error|Problem while running the operation of check/register "
                                    L"of the UWP application. refused"));
}

class FakeAppServices final : public Platform::AppServices {
 public:
  class Service final : public Platform::AppService {
   public:
    Service(FakeAppServices& of, std::wstring answering) : owner(of), who(std::move(answering)) {}
    std::pair<int, std::wstring> Send(const std::wstring& text) override {
      owner.sent.push_back(who + L": " + text);
      if (owner.throwing) throw std::runtime_error("gone");
      return {who == owner.answering ? 0 : 4, L"failed"};
    }
    void SystemRestarted() override {}

   private:
    FakeAppServices& owner;
    std::wstring who;
  };

  std::unique_ptr<Platform::AppService> Open(const std::wstring& family,
                                             const std::wstring& service) override {
    return std::make_unique<Service>(*this, family + L"/" + service);
  }

  std::wstring answering;
  bool throwing = false;
  std::vector<std::wstring> sent;
};

TEST_F(QuboFacadeTest, TellsTheNewerAppAndElseTheOlderThatSetUpIsOver) {
  const std::wstring qubo = std::wstring(kQuboFamily) + L"/Vx.Kestra.MachineEventHandler";
  const std::wstring lumo = std::wstring(kLumoFamily) + L"/Vx.Lumos.MachineEventHandler";
  const std::wstring message = L": { \"command\": \"oobe_completed\" }";
  const std::wstring failed = L"warning|OOBE AppService for Qubo failed. Attempting Vx Lumo's one.";
  const std::wstring unreachable = L"error|Could not communicate with AppService for OOBE";
  const std::wstring lumoResult = L"info|Attempt to launch Vx Lumo's AppService (OOBE) was ";
  const struct {
    const char* name;
    std::wstring answering;
    bool throwing;
    bool told;
    std::vector<std::wstring> sent;
    std::vector<std::wstring> lines;
  } cases[] = {
      {"the newer",
       qubo,
       false,
       true,
       {qubo + message},
       {L"info|OOBE AppService for Qubo was ok."}},
      {"the older",
       lumo,
       false,
       true,
       {qubo + message, lumo + message},
       {failed, lumoResult + L"1"}},
      {"neither", L"", false, false, {qubo + message, lumo + message}, {failed, lumoResult + L"0"}},
      {"a service that throws",
       L"",
       true,
       false,
       {qubo + message, lumo + message},
       {unreachable, failed, unreachable, lumoResult + L"0"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    FakeAppServices services;
    services.answering = c.answering;
    services.throwing = c.throwing;
    const Platform::MachineScope told(
        [&](Platform::Machine& machine) { machine.appServices = &services; });
    const QuboFacade facade;
    log.Clear();
    EXPECT_EQ(facade.CallAppServiceAfterOobe(), c.told);
    EXPECT_EQ(services.sent, c.sent);
    EXPECT_EQ(log.Lines(), c.lines);
  }
}

TEST_F(QuboFacadeTest, AMarkIsKeptForTheNextResume) {
  EXPECT_TRUE(QuboFacade().SkipAutoLaunchCriteria("qubo_autolaunch_software_happened"));
  EXPECT_TRUE(QuboFacade().SkipAutoLaunchCriteria("any other key"));
  EXPECT_TRUE(QuboLaunchCriteriaDataAccess("qubo_autolaunch_software_happened").ShouldBeSkipped());
  EXPECT_TRUE(QuboLaunchCriteriaDataAccess("any other key").ShouldBeSkipped());
  EXPECT_FALSE(QuboLaunchCriteriaDataAccess("qubo_wakeup_for_smode_skip").ShouldBeSkipped());
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

TEST_F(QuboFacadeTest, NoParameterNamesAnotherProgram) {
  const std::wstring qubo = std::wstring(kAliases) + L"Qubo.exe";
  const std::wstring quoted = L"\"" + qubo + L"\" ";
  static const std::wstring kParameters[] = {
      L"\" C:\\evil.exe \"",
      L"& C:\\evil.exe",
      L"\n\"C:\\evil.exe\"",
      L"\\\"\\\" C:\\evil.exe",
  };
  for (const std::wstring& parameter : kParameters) {
    EXPECT_TRUE(QuboFacade().LaunchUwpWithParameter(parameter));
    EXPECT_EQ(console.started.back().application, qubo);
    EXPECT_EQ(console.started.back().commandLine, quoted + parameter);
  }
  const std::size_t before = console.started.size();
  EXPECT_FALSE(QuboFacade().LaunchUwpWithParameter(std::wstring(40'000, L'x')));
  EXPECT_THAT(console.started, SizeIs(before));
}

// Every operation that acts as the user, with each call that Windows can refuse failing in turn,
// once with an error and once with an exception where there may be one.
TEST_F(QuboFacadeTest, TheThreadIsItselfAgainWhicheverCallFails) {
  static const struct {
    const char* name;
    void (*run)();
  } kOperations[] = {
      {"user name",
       [] {
         std::wstring text;
         QuboFacade().GetCurrentUserName(text);
       }},
      {"package name",
       [] {
         std::wstring text;
         QuboFacade().GetPackageFullName(text);
       }},
      {"registration", [] { QuboFacade().RegisterApp(); }},
      {"launch", [] { QuboFacade().LaunchUwpWithParameter(L"x"); }},
      {"resume", [] { QuboFacade().LaunchUwpWhenComingBackFromSleepIfNeeded(); }},
      {"assistant's package", [] { SentraSoftwareCheckBehavior().IsUwpInstalled(); }},
      {"version", [] { QuboFacade().IsStubClient(); }},
      {"path",
       [] {
         std::wstring text;
         McAfeeHelper().expand_path_impersonated_as_loggedin_user(L"%AppData%\\x", text);
       }},
      {"registration data",
       [] { CopyRegistrationData(L"client", *Logging::LogManager::GetLogger()); }},
      {"AI-experience app", [] { Aurelo::AureloFacade().LaunchUwpForOobe(); }},
  };
  console.staged = {kQuboName};
  console.installed[L"7C3B9E40.AureloCenter_r4x2m8kq7tn3b"] = L"Aurelo_1";
  console.installed.erase(kQuboFamily);  // so that the second of each two is asked for as well
  for (const auto& operation : kOperations) {
    for (const bool thrown : {false, true}) {
      console.registered.clear();
      console.FailCall(FakeConsole::kNever);
      operation.run();
      const std::size_t count = console.calls.size();
      ASSERT_GT(count, 2U) << operation.name;
      const std::uintptr_t handles = Tests::HandleGauge();
      for (std::size_t call = 0; call < count; ++call) {
        SCOPED_TRACE(::testing::Message()
                     << operation.name << ", call " << call << " of " << count);
        console.impersonations = 0;
        console.reverts = 0;
        console.registered.clear();
        console.FailCall(call, thrown);
        EXPECT_NO_THROW(operation.run());
        const bool revertFails = call < console.calls.size() && console.calls[call] == "Revert";
        EXPECT_EQ(console.reverts, console.impersonations);
        EXPECT_EQ(console.acting && !revertFails, false);
        console.acting = false;
      }
      EXPECT_EQ(Tests::HandleGauge(), handles);
    }
  }
}

}  // namespace
}  // namespace Vx::Tessel::Server::Services::Orvane::Qubo
