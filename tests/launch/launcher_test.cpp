#include "launch/launcher.h"

#include <gmock/gmock.h>

#include "launch/launch_rules.h"
#include "launch/registration.h"
#include "support/machine_test.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Lines = std::vector<std::wstring>;

constexpr wchar_t kFamily[] = L"App_abc";
constexpr wchar_t kProgram[] = L"C:\\Users\\ann\\AppData\\Local\\Microsoft\\WindowsApps\\app.exe";
constexpr wchar_t kActing[] = L"info|Attempting to impersonate logged in user.";
constexpr wchar_t kNoToken[] = L"warning|Problem while querying user's access token.";
constexpr wchar_t kNotExpanded[] = L"warning|Problem while expanding path.";
constexpr wchar_t kNotReverted[] = L"error|Problem while reverting the impersonation.";
constexpr wchar_t kNoConsole[] =
    L"warning|Problem while detecting active console session ID. This could be caused if the "
    L"business logic ran while the user was not logged in.";

class LauncherTest : public Tests::MachineTest {
 protected:
  LauncherTest() { machine.packages.Install({kFamily, L"App_1_x64__abc", {}}, L"ann"); }

  bool Expand(std::wstring& expanded) const {
    return McAfeeHelper().expand_path_impersonated_as_loggedin_user(L"%AppData%\\x", expanded);
  }

  Launcher launcher;
};

TEST_F(LauncherTest, StartsTheAliasInTheInstallFolderAsTheUser) {
  EXPECT_TRUE(launcher.Run(L"app.exe", kFamily));
  ASSERT_THAT(machine.processes.Started(), SizeIs(1));
  const auto started = machine.processes.Started()[0];
  EXPECT_EQ(started.user, L"ann");
  EXPECT_EQ(started.start.application, kProgram);
  EXPECT_EQ(started.start.commandLine, kProgram);
  EXPECT_EQ(started.start.workingDirectory, L"C:\\Program Files\\WindowsApps\\App_1_x64__abc");
  EXPECT_EQ(started.start.environment, *machine.users.Block(machine.users.TokenOf(L"ann")->get()));
}

TEST_F(LauncherTest, SaysWhichStepOfALaunchFailed) {
  const std::wstring found = L"info|Found package's full name for App_abc: App_1_x64__abc";
  const std::wstring copy = L"warning|Problem while duplicating the user's access token.";
  const std::wstring impersonation = L"warning|Problem while impersonating logged in user.";
  const std::wstring size = L"warning|Problem while finding out the size of the buffer.";
  const struct {
    const char* call;
    std::size_t succeeding;  // successful calls before the failure
    Lines lines;
  } cases[] = {
      {"Sessions.QueryUserToken", 0, {kActing, kNoToken, kActing, kNoToken}},
      {"Sessions.QueryUserToken", 1, {kActing, kActing, kNoToken, found}},
      {"Sessions.DuplicateUserToken", 0, {kActing, copy, kActing, copy}},
      {"Sessions.DuplicateUserToken", 1, {kActing, kActing, copy, found}},
      {"Sessions.Impersonate", 0, {kActing, kActing, impersonation, impersonation}},
      {"Sessions.Impersonate", 1, {kActing, kActing, impersonation}},
      {"Sessions.Revert", 0, {kActing, kActing, kNotReverted, found, kNotReverted, kActing}},
      {"Environment.ExpandForUser", 0, {kActing, kActing, kNotExpanded, found}},
      {"Packages.FindByFamily", 0, {kActing, kActing, size + L" Returned length is 0."}},
      {"Packages.FamilyNames",
       0,
       {kActing, kActing, L"warning|Problem while finding package's resources."}},
      {"Packages.PathByFullName", 0, {kActing, kActing, found, size}},
      {"Environment.Block", 0, {kActing, kActing, found, kActing}},
      {"Processes.Start",
       0,
       {kActing, kActing, found, kActing, L"warning|Problem while creating process as user 5."}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.call << " after " << c.succeeding);
    log.Clear();
    const std::size_t before = machine.processes.Started().size();
    machine.faults.FailNamed(c.call, c.succeeding);
    const bool runs = c.call == std::string("Sessions.Revert");
    EXPECT_EQ(launcher.Run(L"app.exe", kFamily), runs);
    EXPECT_EQ(log.Lines(), c.lines);
    EXPECT_THAT(machine.processes.Started(), SizeIs(before + (runs ? 1 : 0)));
    EXPECT_FALSE(machine.users.Acting());
  }
}

TEST_F(LauncherTest, AsksWindowsNothingWithoutAnAliasAFamilyATokenOrSessions) {
  EXPECT_FALSE(launcher.Run(L"", kFamily));
  EXPECT_FALSE(launcher.Run(L"app.exe", L""));
  EXPECT_FALSE(launcher.RunExeAsUser(kProgram, L"C:\\Apps", nullptr));
  EXPECT_THAT(machine.faults.Calls(), IsEmpty());
  machine.system.RemoveApiSet(Platform::kSessionApiSet);
  std::wstring expanded;
  EXPECT_EQ(launcher.GetUserTokenForCurrentUser(Platform::TokenType::Primary), nullptr);
  EXPECT_FALSE(Expand(expanded));
  EXPECT_THAT(log.Lines(),
              ElementsAre(L"error|Problem in GetUserTokenForCurrentUser. WTSQueryUserToken is not "
                          L"available in this platform.",
                          kActing,
                          L"error|Problem in McAfeeHelper::expand_path_impersonated_as_loggedin_"
                          L"user(): WTSQueryUserToken is not available on this platform"));
}

TEST_F(LauncherTest, StartsAndExpandsNothingWhileNobodyIsAtTheConsole) {
  machine.users.DetachConsole();
  std::wstring profile = L"left over";
  EXPECT_FALSE(launcher.Run(L"app.exe", kFamily));
  EXPECT_FALSE(launcher.IsRealUserSession(profile));
  EXPECT_EQ(profile, L"");
  EXPECT_FALSE(Expand(profile));
  EXPECT_EQ(log.Lines(), (Lines{kActing, kNoConsole, kActing, kNoConsole, kActing, kNoConsole,
                                kActing, kNoConsole}));
}

TEST_F(LauncherTest, RefusesAParameterThatIsTooLong) {
  EXPECT_FALSE(launcher.Run(L"app.exe", kFamily, std::wstring(kMaxCommandLine, L'x')));
  EXPECT_THAT(machine.processes.Started(), IsEmpty());
  EXPECT_EQ(log.Lines().back(),
            L"warning|Problem while building the command line: it is too long.");
}

TEST_F(LauncherTest, TellsTheProfileAndWhetherItIsARealUsers) {
  const std::wstring system = L"C:\\Windows\\system32\\config\\systemprofile";
  std::wstring profile;
  EXPECT_TRUE(launcher.IsRealUserSession(profile));
  EXPECT_EQ(profile, L"C:\\Users\\ann");
  machine.users.SetProfile(L"ann", system);
  EXPECT_FALSE(launcher.IsRealUserSession(profile));
  EXPECT_EQ(profile, system);
  machine.users.SetProfile(L"ann", std::wstring(520, L'x'));
  EXPECT_FALSE(launcher.IsRealUserSession(profile));
  EXPECT_EQ(profile, L"");
}

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane
