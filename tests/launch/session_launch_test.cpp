#include "launch/session_launch.h"

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "security/trusted_program.h"
#include "support/machine_test.h"
#include "support/test_pki.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using testing::SizeIs;

constexpr wchar_t kLogon[] = L"C:\\Windows\\System32\\winlogon.exe";

class SessionLaunchTest : public Tests::MachineTest {
 protected:
  // Returns whether the program was started in the session.
  bool Launch(std::uint32_t session = 1) {
    outcome = LaunchProcessInSession(*program, {}, {}, session);
    return outcome.decision == Records::Decision::Ran;
  }
  // Adds a process of the user, or if the name is empty one of the system in session 0.
  std::uint32_t Run(const wchar_t* image, const std::wstring& user = {}) {
    Platform::ProcessStart start;
    start.application = image;
    if (user.empty()) return *machine.processes.Start(nullptr, start);
    return *machine.processes.Start(machine.users.TokenOf(user)->get(), start);
  }

  Tests::ProtectedFolder folder;
  const std::unique_ptr<const Security::TrustedProgram> program =
      Security::TrustedProgram::Check(folder.Hold(L"pinned.exe")).program;
  Records::Outcome outcome;
};

TEST_F(SessionLaunchTest, TakesTheTokenOfTheFirstLogonProcessThatCanBeRead) {
  Run(kLogon, L"ann");
  EXPECT_TRUE(Launch());
  EXPECT_EQ(machine.processes.Started().back().user, L"SYSTEM");
  EXPECT_EQ(machine.processes.Started().back().id, outcome.number);
  machine.faults.FailCall(2);
  EXPECT_TRUE(Launch());
  EXPECT_EQ(machine.faults.Calls()[2], "Processes.ImagePath");
  EXPECT_EQ(machine.processes.Started().back().user, L"ann");
}

TEST_F(SessionLaunchTest, KnowsTheLogonProcessByItsExactNameAmongTheFirst2048) {
  for (const wchar_t* other : {L"C:\\Windows\\System32\\WinLogon.exe", L"C:\\notwinlogon.exe",
                               L"C:\\winlogon.exe\\a.exe"}) {
    Run(other);
  }
  EXPECT_FALSE(Launch(0));
  machine.processes.End(Run(kLogon));
  for (int i = 0; i < 2044; ++i) Run(L"C:\\a.exe");
  const std::uint32_t last = Run(kLogon);  // process 2049, with the console's own
  EXPECT_FALSE(Launch(0));
  machine.users.DetachConsole();  // its logon process ends
  EXPECT_TRUE(Launch(0));
  machine.processes.End(last);
  EXPECT_FALSE(Launch(0));
}

TEST_F(SessionLaunchTest, SaysWhatIsMissingForAStart) {
  constexpr auto kNoProcess = Records::Reason::NoSession;
  constexpr auto kRefused = Records::Reason::Windows;
  static constexpr struct {
    const char* call;
    Records::Reason reason;
    std::uint32_t error;
  } kCases[] = {
      {"Environment.Block", kRefused, 5},      {"Processes.Ids", kNoProcess, 0},
      {"Processes.ImagePath", kNoProcess, 0},  {"Processes.Session", kNoProcess, 0},
      {"Processes.PrimaryToken", kRefused, 5}, {"Processes.Start", kRefused, 5},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.call);
    machine.faults.FailNamed(c.call);
    EXPECT_FALSE(Launch());
    EXPECT_EQ(outcome.decision, Records::Decision::NotStarted);
    EXPECT_EQ(outcome.reason, c.reason);
    EXPECT_EQ(outcome.number, c.error);
  }
  EXPECT_THAT(machine.processes.Started(), SizeIs(0));
}

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane
