#include "launch/launcher.h"

#include "companion/registration.h"
#include "support/machine_test.h"
#include "support/test.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kFamily[] = L"App_abc";
constexpr wchar_t kProgram[] = L"C:\\Users\\ann\\AppData\\Local\\Microsoft\\WindowsApps\\app.exe";
constexpr wchar_t kActing[] = L"info|Attempting to impersonate logged in user.";

class LauncherTest : public Tests::MachineTest {
 protected:
  LauncherTest() { machine.packages.Install({kFamily, L"App_1_x64__abc", {}}, L"ann"); }

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

TEST_F(LauncherTest, AsksWindowsNothingWithoutAnAliasAFamilyATokenOrSessions) {
  EXPECT_FALSE(launcher.Run(L"", kFamily));
  EXPECT_FALSE(launcher.Run(L"app.exe", L""));
  EXPECT_FALSE(launcher.RunExeAsUser(kProgram, L"C:\\Apps", nullptr));
  EXPECT_THAT(machine.faults.Calls(), IsEmpty());
  machine.system.RemoveApiSet(Platform::kSessionApiSet);
  std::wstring expanded;
  EXPECT_EQ(launcher.GetUserTokenForCurrentUser(Platform::TokenType::Primary), nullptr);
  EXPECT_FALSE(McAfeeHelper().expand_path_impersonated_as_loggedin_user(L"%AppData%\\x", expanded));
  EXPECT_THAT(log.Lines(),
              ElementsAre(L"error|Problem in GetUserTokenForCurrentUser. WTSQueryUserToken is not "
                          L"available in this platform.",
                          kActing,
                          L"error|Problem in McAfeeHelper::expand_path_impersonated_as_loggedin_"
                          L"user(): WTSQueryUserToken is not available on this platform"));
}

// A new logon of the same user counts as a change too, because the first one may have ended.
TEST_F(LauncherTest, StartsNothingIfTheUserChangesBetweenItsTwoTokens) {
  for (const std::wstring next : {L"bob", L"ann"}) {
    machine.users.LogOn(L"ann");
    log.Clear();
    const Tests::LogTrap change(L"Attempting to impersonate", 2,
                                [&] { machine.users.LogOn(next); });
    EXPECT_FALSE(launcher.Run(L"app.exe", kFamily));
    EXPECT_EQ(log.Lines()[2], L"warning|Problem while querying user's access token.");
  }
  EXPECT_THAT(machine.processes.Started(), IsEmpty());
}

TEST_F(LauncherTest, RefusesAParameterThatIsTooLong) {
  EXPECT_FALSE(launcher.Run(L"app.exe", kFamily, std::wstring(Platform::kMaxCommandLine, L'x')));
  EXPECT_THAT(machine.processes.Started(), IsEmpty());
  EXPECT_EQ(log.Lines().back(),
            L"warning|Problem while building the command line: it is too long.");
}

TEST_F(LauncherTest, TakesAProfileThatIsTooLongForNone) {
  std::wstring profile = L"left over";
  machine.users.SetProfile(L"ann", std::wstring(520, L'x'));
  EXPECT_FALSE(launcher.IsRealUserSession(profile));
  EXPECT_EQ(profile, L"");
}

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane
