#include "platform/impersonation.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include <windows.h>

#include "platform/machine.h"
#include "platform/sessions.h"

namespace Vx::Platform {
namespace {

// The real sessions, but impersonating can be refused, and reverting too.
class FailingSessions : public Sessions {
 public:
  std::uint32_t ActiveConsoleSession() const override { return real.ActiveConsoleSession(); }
  Result<UniqueHandle> QueryUserToken(std::uint32_t session) const override {
    return real.QueryUserToken(session);
  }
  Result<UniqueHandle> DuplicateUserToken(RawHandle token, TokenType type) const override {
    return real.DuplicateUserToken(token, type);
  }
  Result<std::wstring> QueryText(std::uint32_t session, SessionText what) const override {
    return real.QueryText(session, what);
  }
  ErrorCode Impersonate(RawHandle) override { return impersonateError; }
  ErrorCode Revert() override {
    ++reverts;
    return revertError;
  }
  Result<bool> ProcessIsLocalSystem() const override { return real.ProcessIsLocalSystem(); }

  ErrorCode impersonateError = 0;
  ErrorCode revertError = 0;
  int reverts = 0;

 private:
  Sessions& real = *WindowsMachine().sessions;
};

bool ThreadActsAsAnother() {
  HANDLE raw = nullptr;
  const BOOL has = OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &raw);
  const UniqueHandle token(raw);
  return has != FALSE;
}

UniqueHandle ConsoleUserToken() {
  const Sessions& sessions = *CurrentMachine().sessions;
  auto token = sessions.QueryUserToken(sessions.ActiveConsoleSession());
  if (!token) return nullptr;
  auto copy = sessions.DuplicateUserToken(token->get(), TokenType::Impersonation);
  return copy ? *std::move(copy) : nullptr;
}

int failedReverts = 0;
void CountFailedRevert() {
  ++failedReverts;
}

class ImpersonationTest : public testing::Test {
 protected:
  ImpersonationTest() { failedReverts = 0; }

  FailingSessions sessions;
};

TEST_F(ImpersonationTest, ActsAsTheUserUntilItIsReverted) {
  const UniqueHandle token = ConsoleUserToken();
  ASSERT_NE(token, nullptr);
  Impersonation user(token.get());
  ASSERT_TRUE(user) << user.Error();
  EXPECT_TRUE(ThreadActsAsAnother());
  EXPECT_EQ(user.Revert(), 0U);
  EXPECT_FALSE(ThreadActsAsAnother());
}

TEST_F(ImpersonationTest, EndsWithTheScopeThatAnExceptionLeaves) {
  const UniqueHandle token = ConsoleUserToken();
  ASSERT_NE(token, nullptr);
  try {
    const Impersonation user(token.get());
    ASSERT_TRUE(ThreadActsAsAnother());
    throw std::runtime_error("in the middle");
  } catch (const std::runtime_error&) {
    EXPECT_FALSE(ThreadActsAsAnother());
  }
}

TEST_F(ImpersonationTest, RefusesAHandleThatIsNoToken) {
  const UniqueHandle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  const Impersonation user(event.get());
  EXPECT_FALSE(user);
  EXPECT_NE(user.Error(), 0U);
}

TEST_F(ImpersonationTest, RevertsNothingAfterARefusal) {
  sessions.impersonateError = ERROR_ACCESS_DENIED;
  const MachineScope scope([&](Machine& machine) { machine.sessions = &sessions; });
  {
    Impersonation user(nullptr, &CountFailedRevert);
    EXPECT_EQ(user.Error(), static_cast<ErrorCode>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(user.Revert(), 0U);
  }
  EXPECT_EQ(sessions.reverts, 0);
}

TEST_F(ImpersonationTest, ReportsAFailedRevertOnceAndDoesNotTryAgain) {
  sessions.revertError = ERROR_ACCESS_DENIED;
  const MachineScope scope([&](Machine& machine) { machine.sessions = &sessions; });
  {
    Impersonation user(nullptr, &CountFailedRevert);
    EXPECT_EQ(user.Revert(), static_cast<ErrorCode>(ERROR_ACCESS_DENIED));
  }
  EXPECT_EQ(sessions.reverts, 1);
  EXPECT_EQ(failedReverts, 0) << "the caller knows already";
  { const Impersonation user(nullptr, &CountFailedRevert); }
  EXPECT_EQ(failedReverts, 1);
}

}  // namespace
}  // namespace Vx::Platform
