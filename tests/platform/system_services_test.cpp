#include "platform/system_services.h"

#include "platform/sessions.h"
#include "support/test.h"

namespace Vx::Platform {
namespace {

TEST(ApiSetsTest, AsksTheSystem) {
  const ApiSets& apiSets = *CurrentMachine().apiSets;
  EXPECT_TRUE(apiSets.IsPresent(L"api-ms-win-core-file-l1-1-0"));
  for (const std::wstring& name : {std::wstring(L"api-ms-win-there-is-no-such-l1-1-0"),
                                   std::wstring(), std::wstring(40'000, L'a')}) {
    EXPECT_FALSE(apiSets.IsPresent(name)) << name.size();
  }
}

TEST(LockdownPolicyTest, LoadsFromAFullPathOnlyAndTellsWhenTheQueryIsMissing) {
  const LockdownPolicy& policy = *CurrentMachine().lockdownPolicy;
  std::int32_t mode = 77;
  EXPECT_EQ(policy.QueryMode(L"version.dll", mode).Error(), ErrorCode{ERROR_BAD_PATHNAME});
  EXPECT_NE(policy.QueryMode(L"C:\\none\\version.dll", mode).Error(), 0U);
  wchar_t folder[MAX_PATH];
  GetSystemDirectoryW(folder, MAX_PATH);
  const auto result = policy.QueryMode(std::wstring(folder) + L"\\version.dll", mode);
  ASSERT_TRUE(result);
  EXPECT_LT(*result, 0);
  EXPECT_EQ(mode, 77);
}

TEST(SessionsTest, NamesTheUserOfTheConsoleWhoIsNotLocalSystem) {
  const Sessions& sessions = *CurrentMachine().sessions;
  const std::uint32_t console = sessions.ActiveConsoleSession();
  wchar_t name[256];
  DWORD length = 256;
  ASSERT_NE(GetUserNameW(name, &length), FALSE);
  EXPECT_EQ(*sessions.QueryText(console, SessionText::UserName), name);
  EXPECT_FALSE(sessions.QueryText(console, SessionText::DomainName)->empty());
  EXPECT_FALSE(*sessions.ProcessIsLocalSystem());
}

}  // namespace
}  // namespace Vx::Platform
