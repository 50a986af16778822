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

TEST(LockdownLibrariesTest, LoadsFromAFullPathOnlyAndTellsWhenTheQueryIsMissing) {
  LockdownLibraries& libraries = *CurrentMachine().lockdownLibraries;
  EXPECT_EQ(libraries.Load(L"version.dll").Error(), ErrorCode{ERROR_BAD_PATHNAME});
  EXPECT_NE(libraries.Load(L"C:\\none\\version.dll").Error(), 0U);
  wchar_t folder[MAX_PATH];
  GetSystemDirectoryW(folder, MAX_PATH);
  const auto library = libraries.Load(std::wstring(folder) + L"\\version.dll");
  ASSERT_TRUE(library);
  std::int32_t mode = 77;
  EXPECT_LT((*library)->QueryMode(mode), 0);
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
