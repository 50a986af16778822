#include "launch/launcher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include "launch/launch_rules.h"
#include "support/fake_console.h"
#include "support/log_capture.h"
#include "support/probe.h"
#include "support/temp_folder.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using Platform::Machine;
using Platform::MachineScope;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Tests::FakeConsole;
using Tests::LogCapture;

constexpr wchar_t kFamily[] = L"App_abc";
constexpr wchar_t kProgram[] = L"C:\\Users\\ann\\AppData\\Local\\Microsoft\\WindowsApps\\app.exe";

constexpr wchar_t kActing[] = L"info|Attempting to impersonate logged in user.";
constexpr wchar_t kFound[] = L"info|Found package's full name for App_abc: App_1_x64__abc";
constexpr wchar_t kQueryFailed[] = L"warning|Problem while querying user's access token.";
constexpr wchar_t kCopyFailed[] = L"warning|Problem while duplicating the user's access token.";
constexpr wchar_t kActingFailed[] = L"warning|Problem while impersonating logged in user.";
constexpr wchar_t kExpandFailed[] = L"warning|Problem while expanding path.";
constexpr wchar_t kRevertFailed[] = L"error|Problem while reverting the impersonation.";
constexpr wchar_t kNoLength[] =
    L"warning|Problem while finding out the size of the buffer. Returned length is 0.";
constexpr wchar_t kNoPath[] = L"warning|Problem while finding out the size of the buffer.";
constexpr wchar_t kStartFailed[] = L"warning|Problem while creating process as user 5.";
constexpr wchar_t kNoConsole[] =
    L"warning|Problem while detecting active console session ID. This could be caused if the "
    L"business logic ran while the user was not logged in.";
constexpr wchar_t kNoSessionApi[] =
    L"error|Problem in GetUserTokenForCurrentUser. WTSQueryUserToken is not available in this "
    L"platform.";

class LauncherTest : public testing::Test {
 protected:
  LauncherTest() { console.installed[kFamily] = L"App_1_x64__abc"; }

  FakeConsole console;
  MachineScope scope{[this](Machine& machine) { console.Install(machine); }};
  LogCapture log;
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
  const struct {
    const char* call;
    bool runs;
    Lines lines;
  } cases[] = {
      {"QueryUserToken", false, {kActing, kQueryFailed, kActing}},
      {"DuplicateUserToken", false, {kActing, kCopyFailed, kActing}},
      {"QueryUserToken", false, {kActing, kActing, kQueryFailed, kFound}},
      {"DuplicateUserToken", false, {kActing, kActing, kCopyFailed, kFound}},
      {"Impersonate", false, {kActing, kActing, kActingFailed, kFound}},
      {"ExpandForUser", false, {kActing, kActing, kExpandFailed, kFound}},
      {"Revert", true, {kActing, kActing, kRevertFailed, kFound, kActing}},
      {"Impersonate", false, {kActing, kActing, kActingFailed}},
      {"FindByFamily", false, {kActing, kActing, kNoLength}},
      {"PathByFullName", false, {kActing, kActing, kFound, kNoPath}},
      {"Revert", true, {kActing, kActing, kFound, kRevertFailed, kActing}},
      {"Block", false, {kActing, kActing, kFound, kActing}},
      {"Start", false, {kActing, kActing, kFound, kActing, kStartFailed}},
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
    EXPECT_EQ(console.impersonations, console.reverts);
  }
}

TEST_F(LauncherTest, NeedsAnAliasAndAFamily) {
  EXPECT_FALSE(launcher.Run(L"", kFamily));
  EXPECT_FALSE(launcher.Run(L"app.exe", L""));
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(LauncherTest, StartsNothingWhileNobodyIsAtTheConsole) {
  console.session = 0xFFFFFFFF;
  std::wstring profile = L"left over";
  EXPECT_FALSE(launcher.Run(L"app.exe", kFamily));
  EXPECT_FALSE(launcher.IsRealUserSession(profile));
  EXPECT_EQ(profile, L"");
  EXPECT_THAT(log.Lines(),
              ElementsAre(kActing, kNoConsole, kActing, kNoConsole, kActing, kNoConsole));
}

TEST_F(LauncherTest, AsksForNoTokenWhereWindowsHasNoSessions) {
  console.sessionApi = false;
  EXPECT_EQ(launcher.GetUserTokenForCurrentUser(Platform::TokenType::Primary), nullptr);
  EXPECT_THAT(log.Lines(), ElementsAre(kNoSessionApi));
  EXPECT_THAT(console.calls, IsEmpty());
}

TEST_F(LauncherTest, PassesAParameterBehindTheQuotedPath) {
  EXPECT_TRUE(launcher.Run(L"app.exe", kFamily, L"--from \"x\" & other.exe"));
  ASSERT_THAT(console.started, SizeIs(1));
  EXPECT_EQ(console.started[0].application, kProgram);
  EXPECT_EQ(console.started[0].commandLine,
            L"\"" + std::wstring(kProgram) + L"\" --from \"x\" & other.exe");
}

TEST_F(LauncherTest, RefusesAParameterThatIsTooLong) {
  EXPECT_FALSE(launcher.Run(L"app.exe", kFamily, std::wstring(kMaxCommandLine, L'x')));
  EXPECT_THAT(console.started, IsEmpty());
  EXPECT_EQ(log.Lines().back(),
            L"warning|Problem while building the command line: it is too long.");
}

TEST_F(LauncherTest, StartsNothingWithoutAToken) {
  EXPECT_FALSE(launcher.RunExeAsUser(kProgram, L"C:\\Apps", nullptr));
  EXPECT_THAT(console.calls, IsEmpty());
}

TEST_F(LauncherTest, TellsTheProfileOfARealUser) {
  std::wstring profile;
  EXPECT_TRUE(launcher.IsRealUserSession(profile));
  EXPECT_EQ(profile, L"C:\\Users\\ann");
}

TEST_F(LauncherTest, TellsWhatTheSystemsProfileIs) {
  console.userVariables = {{L"%userprofile%", L"C:\\Windows\\system32\\config\\systemprofile"}};
  std::wstring profile;
  EXPECT_FALSE(launcher.IsRealUserSession(profile));
  EXPECT_EQ(profile, L"C:\\Windows\\system32\\config\\systemprofile");
}

TEST_F(LauncherTest, StartsARealProgram) {
  const Tests::TempFolder folder;
  const auto aliases = folder.Path() / L"AppData\\Local\\Microsoft\\WindowsApps";
  std::filesystem::create_directories(aliases);
  std::filesystem::copy_file(Tests::ProbePath(), aliases / L"app.exe");
  console.realProcesses = true;
  console.userVariables = {{L"%userprofile%", folder.Path().wstring()}};
  console.appsFolder = folder.Path().wstring() + L"\\";
  console.installed[kFamily] = L"AppData";

  ASSERT_TRUE(launcher.Run(L"app.exe", kFamily, L"a \"b c\""));
  const auto report = Tests::WaitForProbe((aliases / L"app.exe.out").wstring());
  ASSERT_TRUE(report);
  EXPECT_THAT(report->arguments, ElementsAre(L"a", L"b c"));
  EXPECT_EQ(report->workingDirectory, (folder.Path() / L"AppData").wstring());
}

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane
