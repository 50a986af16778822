#include "platform/console_user.h"

#include "simulator/fault_injection.h"
#include "support/test.h"

namespace Vx::Platform {
namespace {

using Tests::ThreadActsAsAnother;

class ConsoleUserTest : public testing::Test {
 protected:
  ConsoleUserTest() { faults.Clear(); }

  Simulator::FaultInjection faults;
  MachineScope scope{[this](Machine& machine) { faults.Install(machine); }};
  std::vector<std::pair<ActingStep, ErrorCode>> refused;
  const ActingReport report = [this](ActingStep step, ErrorCode error) {
    refused.emplace_back(step, error);
  };
};

TEST_F(ConsoleUserTest, RunsAnActionAsTheUserAndRevertsAlsoAfterAnException) {
  EXPECT_TRUE(AsConsoleUser(report, ThreadActsAsAnother));
  EXPECT_FALSE(ThreadActsAsAnother());
  const auto failing = []() -> bool { throw std::runtime_error("in the middle"); };
  EXPECT_THROW(AsConsoleUser(report, failing), std::runtime_error);
  EXPECT_FALSE(ThreadActsAsAnother());
  EXPECT_THAT(refused, IsEmpty());
}

TEST_F(ConsoleUserTest, RevertsNothingAfterARefusal) {
  const UniqueHandle noToken(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  EXPECT_FALSE(AsUser(noToken.get(), report, [] { return true; }));
  EXPECT_FALSE(AsUser(nullptr, report, [] { return true; }));
  EXPECT_THAT(refused, ElementsAre(Pair(ActingStep::Impersonation, testing::Ne(0U))));
  EXPECT_THAT(faults.Calls(), ElementsAre("Sessions.Impersonate"));
}

TEST_F(ConsoleUserTest, ReportsEachRefusedStepOnce) {
  static constexpr struct {
    const char* call;
    ActingStep step;
    bool acts;
  } kCases[] = {
      {"Sessions.QueryUserToken", ActingStep::Token, false},
      {"Sessions.DuplicateUserToken", ActingStep::TokenCopy, false},
      {"Sessions.Impersonate", ActingStep::Impersonation, false},
      {"Sessions.Revert", ActingStep::Revert, true},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.call);
    refused.clear();
    faults.FailNamed(c.call);
    const UniqueHandle token = ConsoleUserToken(TokenType::Impersonation, report);
    EXPECT_EQ(AsUser(token.get(), report, [] { return true; }), c.acts);
    EXPECT_THAT(refused, ElementsAre(Pair(c.step, ErrorCode{ERROR_ACCESS_DENIED})));
    faults.Clear();
  }
}

TEST_F(ConsoleUserTest, FindsTheSameLogonInEveryTokenOfAnOperationAndRefusesWhatItCannotCompare) {
  OneLogon same;
  const UniqueHandle token = ConsoleUserToken(report, &same);
  EXPECT_THAT(*CurrentMachine().sessions->SidOf(token.get()), testing::StartsWith(L"S-1-5-"));
  EXPECT_TRUE(same);
  EXPECT_NE(ConsoleUserToken(TokenType::Primary, report, &same), nullptr);
  EXPECT_THAT(refused, IsEmpty());
  faults.FailNamed("Sessions.LogonOf");
  EXPECT_EQ(ConsoleUserToken(report, &same), nullptr);
  same = ~*same;
  faults.Clear();
  EXPECT_EQ(ConsoleUserToken(report, &same), nullptr);
  EXPECT_THAT(refused, ElementsAre(Pair(ActingStep::Token, ErrorCode{ERROR_ACCESS_DENIED}),
                                   Pair(ActingStep::Token, ErrorCode{ERROR_LOGON_FAILURE})));
}

TEST_F(ConsoleUserTest, AFailedRevertIsReportedWhileAnExceptionPasses) {
  faults.FailNamed("Sessions.Revert");
  const auto failing = []() -> bool { throw std::runtime_error("in the middle"); };
  EXPECT_THROW(AsConsoleUser(report, failing), std::runtime_error);
  EXPECT_THAT(refused, ElementsAre(Pair(ActingStep::Revert, ErrorCode{ERROR_ACCESS_DENIED})));
}

std::optional<SECURITY_IMPERSONATION_LEVEL> LevelOfThread() {
  SECURITY_IMPERSONATION_LEVEL level{};
  DWORD size = 0;
  if (GetTokenInformation(Tests::ThreadToken().get(), TokenImpersonationLevel, &level, sizeof level,
                          &size) == FALSE) {
    return std::nullopt;
  }
  return level;
}

TEST(OwnIdentityTest, ReturnsTheThreadWithTheTokenThatItCameWith) {
  for (const auto level : {SecurityIdentification, SecurityImpersonation}) {
    ASSERT_NE(ImpersonateSelf(level), FALSE);
    {
      const OwnIdentity own;
      EXPECT_EQ(own.Error(), 0U);
      EXPECT_FALSE(ThreadActsAsAnother());
    }
    EXPECT_EQ(LevelOfThread(), level);
    RevertToSelf();
  }
  { const OwnIdentity own; }
  EXPECT_FALSE(ThreadActsAsAnother()) << "a thread that did not impersonate";
}

// The exit status is that of a fail-fast. Only a debug build checks.
TEST(OwnIdentityDeathTest, OfAThreadThatImpersonatesEndsADebugBuild) {
  ExpectOwnIdentity();
#ifndef NDEBUG
  const auto enter = [] {
    ImpersonateSelf(SecurityImpersonation);
    ExpectOwnIdentity();
  };
  EXPECT_EXIT(enter(), testing::ExitedWithCode(static_cast<int>(0xC0000602)), "");
#endif
}

}  // namespace
}  // namespace Vx::Platform
