#include "platform/processes.h"

#include <gmock/gmock.h>

#include <string_view>

#include <windows.h>

#include "platform/machine.h"
#include "platform/sessions.h"
#include "support/handle_gauge.h"
#include "support/probe.h"
#include "support/temp_folder.h"

namespace Vx::Platform {
namespace {

using testing::ElementsAre;

class ProcessesTest : public testing::Test {
 protected:
  // A start of the probe that reports to `report`, with its arguments behind.
  ProcessStart Probe(const std::wstring& arguments) const {
    ProcessStart start;
    start.application = Tests::ProbePath();
    start.commandLine = L"probe \"" + report + L"\"" + arguments;
    return start;
  }

  Processes& processes = *CurrentMachine().processes;
  Tests::TempFolder folder;
  std::wstring report = folder / L"report.txt";
};

TEST_F(ProcessesTest, HandsOverCommandLineFolderAndEnvironment) {
  ProcessStart start = Probe(L" \"\x00e4 b\" c");
  start.workingDirectory = folder.Path().wstring();
  using std::string_view_literals::operator""sv;
  constexpr auto kBlock = L"SystemRoot=C:\\windows\0VX_PROBE=from the block\0\0"sv;
  start.environment.assign(kBlock.begin(), kBlock.end());
  const Tests::EnvironmentOverride own(L"VX_PROBE_OUT", L"the service's own");

  const auto id = processes.Start(nullptr, start);
  ASSERT_TRUE(id) << id.Error();
  const auto seen = Tests::WaitForProbe(report);
  ASSERT_TRUE(seen);
  EXPECT_EQ(seen->commandLine, start.commandLine);
  EXPECT_THAT(seen->arguments, ElementsAre(report, L"\x00e4 b", L"c"));
  EXPECT_EQ(seen->workingDirectory, start.workingDirectory);
  EXPECT_THAT(seen->environment, ElementsAre(L"VX_PROBE=from the block"));
}

TEST_F(ProcessesTest, StartsAsAUserWithTheServicesFolderWhenNoneIsGiven) {
  const Sessions& sessions = *CurrentMachine().sessions;
  const auto user = sessions.QueryUserToken(sessions.ActiveConsoleSession());
  ASSERT_TRUE(user);
  const auto primary = sessions.DuplicateUserToken(user->get(), TokenType::Primary);
  ASSERT_TRUE(primary);
  const auto id = processes.Start(primary->get(), Probe(L""));
  ASSERT_TRUE(id) << id.Error();
  const auto seen = Tests::WaitForProbe(report);
  ASSERT_TRUE(seen);
  wchar_t own[MAX_PATH];
  GetCurrentDirectoryW(MAX_PATH, own);
  EXPECT_EQ(seen->workingDirectory, own);
}

TEST_F(ProcessesTest, StartsWithTheTokenOfAnotherProcess) {
  const auto token = processes.PrimaryToken(GetCurrentProcessId());
  ASSERT_TRUE(token) << token.Error();
  ASSERT_TRUE(processes.Start(token->get(), Probe(L"")));
  EXPECT_TRUE(Tests::WaitForProbe(report));
  EXPECT_NE(processes.PrimaryToken(0).Error(), 0U);
}

TEST_F(ProcessesTest, PassesTheLongestCommandLineWholeAndRefusesALongerOne) {
  constexpr std::size_t kLongest = 32'766;
  ProcessStart start = Probe(L" ");
  start.commandLine.resize(kLongest, L'x');
  ASSERT_TRUE(processes.Start(nullptr, start));
  const auto seen = Tests::WaitForProbe(report);
  ASSERT_TRUE(seen);
  EXPECT_EQ(seen->commandLine.size(), kLongest);

  start.commandLine += L'x';
  EXPECT_EQ(processes.Start(nullptr, start).Error(),
            static_cast<ErrorCode>(ERROR_FILENAME_EXCED_RANGE));
}

TEST_F(ProcessesTest, RefusesAProgramThatANameAloneWouldChoose) {
  const struct {
    const char* name;
    std::wstring application;
  } kCases[] = {
      {"no program", L""},
      {"name alone", L"cmd.exe"},
      {"relative", L"system32\\cmd.exe"},
      {"of the current drive", L"\\windows\\system32\\cmd.exe"},
      {"of a drive's current folder", L"C:cmd.exe"},
      {"cut short by a zero", std::wstring(L"C:\\windows\\system32\\cmd.exe\0.txt", 32)},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    ProcessStart start;
    start.application = c.application;
    start.commandLine = L"x";
    EXPECT_EQ(processes.Start(nullptr, start).Error(), static_cast<ErrorCode>(ERROR_BAD_PATHNAME));
  }
}

TEST_F(ProcessesTest, RefusesAnEnvironmentThatDoesNotEnd) {
  ProcessStart start = Probe(L"");
  start.environment = {L'A', L'=', L'b', L'\0'};
  EXPECT_EQ(processes.Start(nullptr, start).Error(), static_cast<ErrorCode>(ERROR_BAD_ENVIRONMENT));
}

TEST_F(ProcessesTest, GivesTheSystemsErrorAndKeepsNoHandle) {
  ProcessStart start = Probe(L"");
  ProcessStart missing = start;
  missing.application = folder / L"none.exe";
  ProcessStart nowhere = start;
  nowhere.workingDirectory = folder / L"none";
  EXPECT_EQ(processes.Start(nullptr, missing).Error(),
            static_cast<ErrorCode>(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(processes.Start(nullptr, nowhere).Error(), static_cast<ErrorCode>(ERROR_DIRECTORY));
  const std::uintptr_t before = Tests::HandleGauge();
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(processes.Start(nullptr, start));
    ASSERT_TRUE(processes.PrimaryToken(GetCurrentProcessId()));
    ASSERT_TRUE(processes.ImagePath(GetCurrentProcessId()));
  }
  EXPECT_EQ(Tests::HandleGauge(), before);
  EXPECT_TRUE(Tests::WaitForProbe(report));
}

TEST_F(ProcessesTest, FindsThisProcessAmongTheRunningOnes) {
  const std::uint32_t self = GetCurrentProcessId();
  EXPECT_THAT(processes.Ids(2048), testing::Contains(self));
  EXPECT_EQ(processes.Ids(1).size(), 1U);
  EXPECT_TRUE(processes.Ids(0).empty());
  wchar_t path[MAX_PATH];
  GetModuleFileNameW(nullptr, path, MAX_PATH);
  EXPECT_EQ(processes.ImagePath(self), std::wstring(path));
  DWORD session = 0;
  ProcessIdToSessionId(self, &session);
  EXPECT_EQ(processes.Session(self), session);
  EXPECT_FALSE(processes.ImagePath(0));
}

}  // namespace
}  // namespace Vx::Platform
