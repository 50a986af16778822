#include "launch/launcher.h"

#include "security/trusted_program.h"
#include "support/machine_test.h"
#include "support/test.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kLogon[] = L"C:\\Windows\\System32\\winlogon.exe";

class SessionLaunchTest : public Tests::MachineTest {
 protected:
  bool Launch(std::uint32_t session = 1) {
    outcome = LaunchProcessInSession(*program, {}, {}, session);
    return outcome.decision == Records::Decision::Ran;
  }
  // Starts a process of `user` or, if `user` is empty, a system process in session 0.
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
  const std::uint32_t last = Run(kLogon);  // the 2049th process, including the console's
  EXPECT_FALSE(Launch(0));
  machine.users.DetachConsole();  // ends its logon process
  EXPECT_TRUE(Launch(0));
  machine.processes.End(last);
  EXPECT_FALSE(Launch(0));
}

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane
