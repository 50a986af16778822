#include "platform/impersonation.h"

#include <gmock/gmock.h>

#include <stdexcept>

#include <windows.h>

#include "platform/console_user.h"
#include "platform/machine.h"
#include "simulator/fault_injection.h"

namespace Vx::Platform {
namespace {

using testing::ElementsAre;

bool ThreadActsAsAnother() {
  HANDLE raw = nullptr;
  const BOOL has = OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &raw);
  const UniqueHandle token(raw);
  return has != FALSE;
}

int failedReverts = 0;
void CountFailedRevert() {
  ++failedReverts;
}

class ImpersonationTest : public testing::Test {
 protected:
  ImpersonationTest() {
    failedReverts = 0;
    faults.Clear();
  }

  Simulator::FaultInjection faults;
  MachineScope scope{[this](Machine& machine) { faults.Install(machine); }};
  UniqueHandle token = *ConsoleUserToken();
};

TEST_F(ImpersonationTest, ActsAsTheUserUntilItIsReverted) {
  Impersonation user(token.get());
  EXPECT_TRUE(user && ThreadActsAsAnother());
  EXPECT_EQ(user.Revert(), 0U);
  EXPECT_FALSE(ThreadActsAsAnother());
}

TEST_F(ImpersonationTest, EndsWithTheScopeThatAnExceptionLeaves) {
  try {
    const Impersonation user(token.get());
    EXPECT_TRUE(ThreadActsAsAnother());
    throw std::runtime_error("in the middle");
  } catch (const std::runtime_error&) {
    EXPECT_FALSE(ThreadActsAsAnother());
  }
}

TEST_F(ImpersonationTest, RevertsNothingAfterARefusal) {
  const UniqueHandle noToken(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  {
    Impersonation user(noToken.get(), &CountFailedRevert);
    EXPECT_FALSE(user);
    EXPECT_NE(user.Error(), 0U);
    EXPECT_EQ(user.Revert(), 0U);
  }
  EXPECT_THAT(faults.Calls(), ElementsAre("Sessions.Impersonate"));
}

TEST_F(ImpersonationTest, ReportsAFailedRevertOnceAndDoesNotTryAgain) {
  faults.FailNamed("Sessions.Revert");
  {
    Impersonation user(token.get(), &CountFailedRevert);
    EXPECT_EQ(user.Revert(), ErrorCode{ERROR_ACCESS_DENIED});
  }
  EXPECT_THAT(faults.Calls(), ElementsAre("Sessions.Impersonate", "Sessions.Revert"));
  EXPECT_EQ(failedReverts, 0) << "the caller knows already";
  { const Impersonation user(token.get(), &CountFailedRevert); }
  EXPECT_EQ(failedReverts, 1);
}

}  // namespace
}  // namespace Vx::Platform
