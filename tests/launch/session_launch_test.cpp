#include "launch/session_launch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/kernel_objects.h"
#include "platform/machine.h"
#include "platform/sessions.h"
#include "support/fake_console.h"
#include "support/probe.h"
#include "support/stand_in_logon.h"
#include "support/temp_folder.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using namespace std::string_view_literals;
using Platform::ErrorCode;
using Platform::Machine;
using Platform::MachineScope;
using Platform::RawHandle;
using Platform::Result;
using Platform::UniqueHandle;
using testing::IsEmpty;
using testing::SizeIs;

constexpr ErrorCode kDenied = 5;
constexpr wchar_t kProgram[] = L"C:\\Program Files\\Tool\\tool.exe";

struct RunningProcess {
  std::uint32_t id;
  std::optional<std::wstring> path;
  std::optional<std::uint32_t> session;
};

// A console with the processes that a test names.
class FakeMachine final : public Tests::FakeConsole {
 public:
  std::vector<std::uint32_t> Ids(std::size_t limit) const override {
    std::vector<std::uint32_t> ids;
    for (const auto& process : running) ids.push_back(process.id);
    ids.resize(std::min(ids.size(), limit));
    return ids;
  }
  std::optional<std::wstring> ImagePath(std::uint32_t id) const override { return Get(id).path; }
  std::optional<std::uint32_t> Session(std::uint32_t id) const override { return Get(id).session; }
  Result<UniqueHandle> PrimaryToken(std::uint32_t id) const override {
    tokensAsked.push_back(id);
    if (tokenError != 0) return Result<UniqueHandle>::Failure(tokenError);
    return *Platform::WindowsMachine().kernelObjects->MakeManualEvent({});
  }
  Result<std::uint32_t> Start(RawHandle token, const Platform::ProcessStart& start) override {
    EXPECT_NE(token, nullptr);
    return FakeConsole::Start(token, start);
  }
  Result<std::vector<wchar_t>> Block(RawHandle token) const override {
    EXPECT_EQ(token, nullptr);
    if (blockError != 0) return Result<std::vector<wchar_t>>::Failure(blockError);
    return std::vector<wchar_t>(block.begin(), block.end());
  }

  std::vector<RunningProcess> running{{8, L"C:\\Windows\\System32\\winlogon.exe", 1}};
  std::wstring_view block = L"LOCALAPPDATA=C:\\s\\AppData\\Local\0\0"sv;
  ErrorCode tokenError = 0;
  ErrorCode blockError = 0;
  mutable std::vector<std::uint32_t> tokensAsked;

 private:
  const RunningProcess& Get(std::uint32_t id) const {
    return *std::find_if(running.begin(), running.end(),
                         [id](const RunningProcess& process) { return process.id == id; });
  }
};

class SessionLaunchTest : public testing::Test {
 protected:
  int Launch(const std::wstring& arguments = {}, const std::wstring& packageFolder = {}) {
    return LaunchProcessInSession(kProgram, arguments, {}, 1, processId, packageFolder);
  }

  FakeMachine fake;
  MachineScope scope{[this](Machine& machine) { fake.Install(machine); }};
  std::uint32_t processId = 0;
};

TEST_F(SessionLaunchTest, TakesTheTokenOfTheFirstLogonProcessOfTheSession) {
  using Ids = std::vector<std::uint32_t>;
  constexpr wchar_t kLogon[] = L"C:\\Windows\\System32\\winlogon.exe";
  std::vector<RunningProcess> many(2048, {1, L"C:\\a.exe", 1});
  many.push_back({2, kLogon, 1});
  const struct {
    const char* name;
    std::vector<RunningProcess> running;
    Ids tokens;
  } cases[] = {
      {"the first of two", {{4, kLogon, 0}, {8, kLogon, 1}, {12, kLogon, 1}}, {8}},
      {"among others", {{4, std::nullopt, 1}, {8, L"C:\\a.exe", 1}, {12, kLogon, 1}}, {12}},
      {"in other letters", {{4, L"C:\\Windows\\System32\\WinLogon.exe", 1}}, {}},
      {"a name that only ends alike", {{4, L"C:\\notwinlogon.exe", 1}}, {}},
      {"a folder of that name", {{4, L"C:\\winlogon.exe\\a.exe", 1}}, {}},
      {"in a session that is not known", {{4, kLogon, std::nullopt}}, {}},
      {"behind 2,048 others", many, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fake.running = c.running;
    fake.tokensAsked.clear();
    EXPECT_EQ(Launch() != 0, !c.tokens.empty());
    EXPECT_EQ(fake.tokensAsked, c.tokens);
  }
  EXPECT_THAT(fake.started, SizeIs(2));
}

TEST_F(SessionLaunchTest, StartsTheProgramInItsOwnFolderWithTheSystemsEnvironment) {
  EXPECT_NE(Launch(L"a \"b"), 0);
  EXPECT_EQ(processId, 42U);
  ASSERT_FALSE(fake.started.empty());
  EXPECT_EQ(fake.started[0].application, kProgram);
  EXPECT_EQ(fake.started[0].commandLine, L"\"C:\\Program Files\\Tool\\tool.exe\" a \"b");
  EXPECT_EQ(fake.started[0].workingDirectory, L"C:\\Program Files\\Tool");
  EXPECT_EQ(fake.started[0].environment,
            std::vector<wchar_t>(fake.block.begin(), fake.block.end()));

  ASSERT_NE(Launch({}, L"App_abc"), 0);  // a packaged app has data folders of its own
  const auto moved =
      L"LOCALAPPDATA=C:\\s\\AppData\\Local\\Packages\\App_abc\\LocalCache\\Local\0\0"sv;
  EXPECT_EQ(fake.started[1].environment, std::vector<wchar_t>(moved.begin(), moved.end()));
}

TEST_F(SessionLaunchTest, AnswersZeroWithoutATokenAnEnvironmentOrAStart) {
  fake.notStarting = {kProgram};
  EXPECT_EQ(Launch(), 0);
  fake.notStarting.clear();
  for (const auto failure : {&FakeMachine::tokenError, &FakeMachine::blockError}) {
    fake.*failure = kDenied;
    EXPECT_EQ(Launch(), 0);
    fake.*failure = 0;
  }
  EXPECT_THAT(fake.started, IsEmpty());
  EXPECT_EQ(processId, 0U);
}

// A real program under the token of a process named as the logon process.
TEST(RealSessionLaunchTest, KeepsTheServicesOwnVariablesFromTheProgram) {
  const Tests::TempFolder folder;
  const Tests::StandInLogon logon(folder.Path().wstring());
  const Tests::EnvironmentOverride own(L"VX_PROBE", L"of the service");
  const std::wstring program = folder / L"a tool.exe";
  std::filesystem::copy_file(Tests::ProbePath(), program);
  const std::uint32_t session = Platform::CurrentMachine().sessions->ActiveConsoleSession();
  std::uint32_t processId = 0;
  EXPECT_NE(LaunchProcessInSession(program, L"one \"two three\"", {}, session, processId), 0);
  EXPECT_NE(processId, 0U);

  const auto report = Tests::WaitForProbe(program + L".out");
  ASSERT_TRUE(report);
  EXPECT_EQ(report->commandLine, L"\"" + program + L"\" one \"two three\"");
  EXPECT_EQ(report->workingDirectory, folder.Path().wstring());
  EXPECT_FALSE(report->HasVariable(L"VX_PROBE=of the service"));
}

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane
