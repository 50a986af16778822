#include "platform/environment.h"

#include "platform/console_user.h"
#include "support/test.h"

namespace Vx::Platform {
namespace {

constexpr wchar_t kOwnVariable[] = L"VX_ONLY_IN_THIS_PROCESS";

class EnvironmentTest : public testing::Test {
 protected:
  const Environment& environment = *CurrentMachine().environment;
  const UniqueHandle token =
      ConsoleUserToken([](ActingStep, ErrorCode error) { ADD_FAILURE() << error; });
  const Tests::EnvironmentOverride own{kOwnVariable, L"12345"};
};

TEST_F(EnvironmentTest, ExpandsUpToTheLimitAndNotOneCharacterMore) {
  const auto forProcess = [&](std::size_t limit) {
    return environment.Expand(L"<%VX_ONLY_IN_THIS_PROCESS%> %vx none% 100%", limit);
  };
  const auto forUser = [&](std::size_t limit) {
    return environment.ExpandForUser(token.get(), L"%SystemRoot%\\x", limit);
  };
  EXPECT_EQ(*forProcess(520), L"<12345> %vx none% 100%");
  EXPECT_TRUE(forUser(520)->ends_with(L"\\x"));
  EXPECT_EQ(forUser(520)->find(L'%'), std::wstring::npos);
  const std::function<Result<std::wstring>(std::size_t)> kKinds[] = {forProcess, forUser};
  for (const auto& expand : kKinds) {
    const std::size_t length = expand(520)->size();
    EXPECT_TRUE(expand(length + 1));
    for (const std::size_t limit : {length, length - 1, std::size_t{1}, std::size_t{0}}) {
      EXPECT_EQ(expand(limit).Error(), ErrorCode{ERROR_INSUFFICIENT_BUFFER}) << limit;
    }
  }
  EXPECT_EQ(*environment.Expand(L"", 1), L"");
}

TEST_F(EnvironmentTest, ABlockIsTerminatedAndFreeOfTheServicesOwnVariables) {
  for (const bool ofUser : {false, true}) {
    const auto block = environment.Block(ofUser ? token.get() : nullptr);
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
