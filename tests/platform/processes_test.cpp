#include "platform/processes.h"

#include "support/test.h"

namespace Vx::Platform {
namespace {

class ProcessesTest : public testing::Test {
 protected:
  ErrorCode Error(const ProcessStart& start) { return processes.Start(nullptr, start).Error(); }

  Processes& processes = *CurrentMachine().processes;
  Tests::TempFolder folder;
  std::wstring report = folder / L"report.txt";
  ProcessStart probe{.application = Tests::ProbePath(),
                     .commandLine = L"probe \"" + report + L"\" ",
                     .workingDirectory = {},
                     .environment = {}};
};

TEST_F(ProcessesTest, PassesTheLongestCommandLineWholeAndRefusesALongerOne) {
  probe.commandLine.resize(32'766, L'x');
  ASSERT_TRUE(processes.Start(nullptr, probe));
  const auto seen = Tests::WaitForProbe(report);
  ASSERT_TRUE(seen);
  EXPECT_EQ(seen->commandLine, probe.commandLine);
  probe.commandLine += L'x';
  EXPECT_EQ(Error(probe), ErrorCode{ERROR_FILENAME_EXCED_RANGE});
}

TEST_F(ProcessesTest, RefusesAProgramThatANameAloneWouldChoose) {
  const std::pair<const char*, std::wstring> kCases[] = {
      {"no program", L""},
      {"name alone", L"cmd.exe"},
      {"relative", L"system32\\cmd.exe"},
      {"on the current drive", L"\\windows\\system32\\cmd.exe"},
      {"in a drive's current folder", L"C:cmd.exe"},
      {"truncated by a zero", std::wstring(L"C:\\windows\\system32\\cmd.exe\0.txt", 32)},
  };
  for (const auto& [name, application] : kCases) {
    probe.application = application;
    EXPECT_EQ(Error(probe), ErrorCode{ERROR_BAD_PATHNAME}) << name;
  }
}

TEST_F(ProcessesTest, RefusesAnEnvironmentThatDoesNotEnd) {
  probe.environment = {L'A', L'=', L'b', L'\0'};
  EXPECT_EQ(Error(probe), ErrorCode{ERROR_BAD_ENVIRONMENT});
}

TEST_F(ProcessesTest, GivesTheSystemsErrorAndKeepsNoHandle) {
  const std::uintptr_t before = Tests::HandleGauge();
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(processes.Start(nullptr, probe));
    ASSERT_TRUE(processes.PrimaryToken(GetCurrentProcessId()));
    ASSERT_TRUE(processes.ImagePath(GetCurrentProcessId()));
  }
  EXPECT_EQ(Tests::HandleGauge(), before);
  EXPECT_TRUE(Tests::WaitForProbe(report));
  ProcessStart missing = probe;
  missing.application = folder / L"none.exe";
  EXPECT_EQ(Error(missing), ErrorCode{ERROR_FILE_NOT_FOUND});
  probe.workingDirectory = folder / L"none";
  EXPECT_EQ(Error(probe), ErrorCode{ERROR_DIRECTORY});
}

TEST_F(ProcessesTest, FindsThisProcessAmongTheRunningOnes) {
  const std::uint32_t self = GetCurrentProcessId();
  EXPECT_THAT(processes.Ids(2048), testing::Contains(self));
  EXPECT_EQ(processes.Ids(1).size(), 1U);
  EXPECT_TRUE(processes.Ids(0).empty());
  EXPECT_TRUE(processes.ImagePath(self)->starts_with(Tests::TestFolder()));
  EXPECT_FALSE(processes.ImagePath(0));
}

}  // namespace
}  // namespace Vx::Platform
