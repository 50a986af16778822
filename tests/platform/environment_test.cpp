#include "platform/environment.h"

#include <gtest/gtest.h>

#include <algorithm>

#include <windows.h>

#include "platform/machine.h"
#include "platform/sessions.h"
#include "support/temp_folder.h"

namespace Vx::Platform {
namespace {

constexpr wchar_t kOwnVariable[] = L"VX_ONLY_IN_THIS_PROCESS";

class EnvironmentTest : public testing::Test {
 protected:
  const Environment& environment = *CurrentMachine().environment;
  const Tests::EnvironmentOverride own{kOwnVariable, L"12345"};
};

TEST_F(EnvironmentTest, ExpandsUpToTheLimitAndNotOneCharacterMore) {
  const std::wstring expanded = L"<12345>";
  EXPECT_EQ(*environment.Expand(L"<%VX_ONLY_IN_THIS_PROCESS%>", expanded.size() + 1), expanded);
  for (const std::size_t limit :
       {expanded.size(), expanded.size() - 1, std::size_t{1}, std::size_t{0}}) {
    EXPECT_EQ(environment.Expand(L"<%VX_ONLY_IN_THIS_PROCESS%>", limit).Error(),
              static_cast<ErrorCode>(ERROR_INSUFFICIENT_BUFFER))
        << limit;
  }
}

TEST_F(EnvironmentTest, ExpandsForTheUserWithinTheSameLimit) {
  const Sessions& sessions = *CurrentMachine().sessions;
  const auto token = sessions.QueryUserToken(sessions.ActiveConsoleSession());
  ASSERT_TRUE(token);
  const auto whole = environment.ExpandForUser(token->get(), L"%SystemRoot%\\x", 520);
  ASSERT_TRUE(whole);
  EXPECT_TRUE(whole->ends_with(L"\\x"));
  EXPECT_EQ(whole->find(L'%'), std::wstring::npos);
  EXPECT_TRUE(environment.ExpandForUser(token->get(), L"%SystemRoot%\\x", whole->size() + 1));
  for (const std::size_t limit :
       {whole->size(), whole->size() - 1, std::size_t{1}, std::size_t{0}}) {
    EXPECT_EQ(environment.ExpandForUser(token->get(), L"%SystemRoot%\\x", limit).Error(),
              static_cast<ErrorCode>(ERROR_INSUFFICIENT_BUFFER))
        << limit;
  }
}

TEST_F(EnvironmentTest, LeavesWhatIsNoVariableAlone) {
  EXPECT_EQ(*environment.Expand(L"%vx no such variable% 100%", 100), L"%vx no such variable% 100%");
  EXPECT_EQ(*environment.Expand(L"", 100), L"");
}

TEST_F(EnvironmentTest, ABlockIsTerminatedAndFreeOfTheServicesOwnVariables) {
  for (const bool ofUser : {false, true}) {
    const Sessions& sessions = *CurrentMachine().sessions;
    auto token = sessions.QueryUserToken(sessions.ActiveConsoleSession());
    ASSERT_TRUE(token);
    const auto block = environment.Block(ofUser ? token->get() : nullptr);
    ASSERT_TRUE(block);
    ASSERT_GE(block->size(), 2U);
    EXPECT_EQ((*block)[block->size() - 1], L'\0');
    EXPECT_EQ((*block)[block->size() - 2], L'\0');
    const std::wstring all(block->begin(), block->end());
    EXPECT_EQ(all.find(kOwnVariable), std::wstring::npos);
    EXPECT_NE(all.find(L"SystemRoot="), std::wstring::npos);
  }
}

}  // namespace
}  // namespace Vx::Platform
