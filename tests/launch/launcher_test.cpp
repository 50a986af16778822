#include "launch/launcher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

#include "launch/launch_rules.h"
#include "support/fake_console.h"
#include "support/log_capture.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr wchar_t kFamily[] = L"App_abc";
constexpr wchar_t kProgram[] = L"C:\\Users\\ann\\AppData\\Local\\Microsoft\\WindowsApps\\app.exe";
constexpr wchar_t kActing[] = L"info|Attempting to impersonate logged in user.";

class LauncherTest : public testing::Test {
 protected:
  LauncherTest() { console.installed[kFamily] = L"App_1_x64__abc"; }

  Tests::FakeConsole console;
  Platform::MachineScope scope{[this](Platform::Machine& machine) { console.Install(machine); }};
  Tests::LogCapture log;
  Launcher launcher;
};

TEST_F(LauncherTest, StartsTheAliasInTheInstallFolderAsTheUser) {
  EXPECT_TRUE(launcher.Run(L"app.exe", kFamily));
  ASSERT_THAT(console.started, SizeIs(1));
  EXPECT_EQ(console.started[0].application, kProgram);
  EXPECT_EQ(console.started[0].commandLine, kProgram);
  EXPECT_EQ(console.started[0].workingDirectory, L"C:\\Apps\\App_1_x64__abc");
  EXPECT_EQ(console.started[0].environment, (std::vector<wchar_t>{L'A', L'=', L'1', L'\0', L'\0'}));
  EXPECT_THAT(console.expansionLimits, ElementsAre(520));
}

TEST_F(LauncherTest, SaysWhichStepOfALaunchFailed) {
  using Lines = std::vector<std::wstring>;
  const std::wstring found = L"info|Found package's full name for App_abc: App_1_x64__abc";
  const std::wstring query = L"warning|Problem while querying user's access token.";
  const std::wstring copy = L"warning|Problem while duplicating the user's access token.";
  const std::wstring impersonation = L"warning|Problem while impersonating logged in user.";
  const std::wstring expansion = L"warning|Problem while expanding path.";
  const std::wstring revert = L"error|Problem while reverting the impersonation.";
  const std::wstring size = L"warning|Problem while finding out the size of the buffer.";
  const std::wstring start = L"warning|Problem while creating process as user 5.";
  const struct {
    const char* call;
    bool runs;
    Lines lines;
  } cases[] = {
      {"QueryUserToken", false, {kActing, query, kActing}},
      {"DuplicateUserToken", false, {kActing, copy, kActing}},
      {"QueryUserToken", false, {kActing, kActing, query, found}},
      {"DuplicateUserToken", false, {kActing, kActing, copy, found}},
      {"Impersonate", false, {kActing, kActing, impersonation, found}},
      {"ExpandForUser", false, {kActing, kActing, expansion, found}},
      {"Revert", true, {kActing, kActing, revert, found, kActing}},
      {"Impersonate", false, {kActing, kActing, impersonation}},
      {"FindByFamily", false, {kActing, kActing, size + L" Returned length is 0."}},
      {"PathByFullName", false, {kActing, kActing, found, size}},
      {"Revert", true, {kActing, kActing, found, revert, kActing}},
      {"Block", false, {kActing, kActing, found, kActing}},
      {"Start", false, {kActing, kActing, found, kActing, start}},
  };
  for (std::size_t index = 0; index < std::size(cases); ++index) {
    SCOPED_TRACE(testing::Message() << "call " << index << ", " << cases[index].call);
    log.Clear();
    console.started.clear();
    console.FailCall(index);
    EXPECT_EQ(launcher.Run(L"app.exe", kFamily), cases[index].runs);
    ASSERT_GT(console.calls.size(), index);
    EXPECT_EQ(console.calls[index], cases[index].call);
    EXPECT_EQ(log.Lines(), cases[index].lines);
    EXPECT_THAT(console.started, SizeIs(cases[index].runs ? 1 : 0));
  }
}

TEST_F(LauncherTest, AsksWindowsNothingWithoutAnAliasAFamilyATokenOrSessions) {
  EXPECT_FALSE(launcher.Run(L"", kFamily));
  EXPECT_FALSE(launcher.Run(L"app.exe", L""));
  EXPECT_FALSE(launcher.RunExeAsUser(kProgram, L"C:\\Apps", nullptr));
  EXPECT_THAT(log.Lines(), IsEmpty());
  console.sessionApi = false;
  EXPECT_EQ(launcher.GetUserTokenForCurrentUser(Platform::TokenType::Primary), nullptr);
  EXPECT_THAT(log.Lines(), ElementsAre(L"error|Problem in GetUserTokenForCurrentUser. "
                                       L"WTSQueryUserToken is not available in this platform."));
  EXPECT_THAT(console.calls, IsEmpty());
}

TEST_F(LauncherTest, StartsNothingWhileNobodyIsAtTheConsole) {
  constexpr wchar_t kNoConsole[] =
      L"warning|Problem while detecting active console session ID. This could be caused if the "
      L"business logic ran while the user was not logged in.";
  console.session = 0xFFFFFFFF;
  std::wstring profile = L"left over";
  EXPECT_FALSE(launcher.Run(L"app.exe", kFamily));
  EXPECT_FALSE(launcher.IsRealUserSession(profile));
  EXPECT_EQ(profile, L"");
  EXPECT_THAT(log.Lines(),
              ElementsAre(kActing, kNoConsole, kActing, kNoConsole, kActing, kNoConsole));
}

TEST_F(LauncherTest, RefusesAParameterThatIsTooLong) {
  EXPECT_FALSE(launcher.Run(L"app.exe", kFamily, std::wstring(kMaxCommandLine, L'x')));
  EXPECT_THAT(console.started, IsEmpty());
  EXPECT_EQ(log.Lines().back(),
            L"warning|Problem while building the command line: it is too long.");
}

TEST_F(LauncherTest, TellsTheProfileAndWhetherItIsARealUsers) {
  std::wstring profile;
  EXPECT_TRUE(launcher.IsRealUserSession(profile));
  EXPECT_EQ(profile, L"C:\\Users\\ann");
  console.userVariables = {{L"%userprofile%", L"C:\\Windows\\system32\\config\\systemprofile"}};
  EXPECT_FALSE(launcher.IsRealUserSession(profile));
  EXPECT_EQ(profile, L"C:\\Windows\\system32\\config\\systemprofile");
}

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane
