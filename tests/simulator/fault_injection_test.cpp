#include "simulator/fault_injection.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "platform/console_user.h"
#include "platform/machine.h"
#include "simulator/simulated_machine.h"

namespace Vx::Simulator {

namespace {

using Platform::CurrentMachine;
using Platform::UniqueHandle;
using ::testing::ElementsAre;

class FaultInjectionTest : public ::testing::Test {
 protected:
  FaultInjectionTest() {
    machine.users.LogOn(L"ann");
    machine.packages.Install(
        {.familyName = L"App_id", .fullName = L"App_1.0.0.0_x64__id", .folder = {}}, L"ann");
  }

  UniqueHandle TokenAtConsole() {
    return Platform::ConsoleUserToken([](Platform::ActingStep, Platform::ErrorCode) {});
  }

  // Whether the console user has the app registered.
  bool UserHasTheApp() {
    return Platform::AsConsoleUser(
        [](Platform::ActingStep, Platform::ErrorCode) {},
        [] { return !CurrentMachine().packages->FindByFamily(L"App_id").fullNames.empty(); });
  }

  SimulatedMachine machine;
  Platform::MachineScope scope{[this](Platform::Machine& real) { machine.Install(real); }};
};

TEST_F(FaultInjectionTest, AFaultWalkMeetsEachCallOnce) {
  std::vector<std::string> failed;
  for (std::size_t index = 0;; ++index) {
    machine.faults.FailCall(index);
    const bool found = UserHasTheApp();
    const auto calls = machine.faults.Calls();
    ASSERT_EQ(found, index >= calls.size() || calls[index] == "Sessions.Revert");
    if (index >= calls.size()) break;
    failed.push_back(calls[index]);
  }
  EXPECT_THAT(failed,
              ElementsAre("Sessions.ActiveConsoleSession", "ApiSets.IsPresent",
                          "Sessions.QueryUserToken", "Sessions.Impersonate",
                          "Packages.FindByFamily", "Packages.FamilyNames", "Sessions.Revert"));
}

TEST_F(FaultInjectionTest, NamedCallsFailAfterThoseThatAreLeftOut) {
  machine.faults.FailNamed("Sessions.QueryUserToken", 1);
  EXPECT_NE(TokenAtConsole(), nullptr);
  EXPECT_EQ(TokenAtConsole(), nullptr);
  EXPECT_EQ(TokenAtConsole(), nullptr);
  machine.faults.Clear();
  EXPECT_NE(TokenAtConsole(), nullptr);
  EXPECT_THAT(machine.faults.Calls(), ElementsAre("Sessions.ActiveConsoleSession",
                                                  "ApiSets.IsPresent", "Sessions.QueryUserToken"));
}

}  // namespace

}  // namespace Vx::Simulator
