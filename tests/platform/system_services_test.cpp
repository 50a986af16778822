#include "platform/system_services.h"

#include <gtest/gtest.h>

#include <windows.h>

#include "platform/machine.h"
#include "platform/sessions.h"
#include "support/temp_folder.h"

namespace Vx::Platform {
namespace {

TEST(ApiSetsTest, AsksTheSystem) {
  const struct {
    const wchar_t* name;
    bool present;
  } kCases[] = {
      {L"api-ms-win-core-file-l1-1-0", true},
      {L"api-ms-win-there-is-no-such-l1-1-0", false},
      {L"no api set at all", false},
      {L"", false},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(CurrentMachine().apiSets->IsPresent(c.name), c.present)
        << std::string(c.name, c.name + std::wcslen(c.name));
  }
  EXPECT_FALSE(CurrentMachine().apiSets->IsPresent(std::wstring(40'000, L'a')));
}

TEST(SystemTriggersTest, AnswersNotImplementedWhereThereAreNone) {
  if (GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlRaiseCustomSystemEventTrigger") !=
      nullptr) {
    GTEST_SKIP() << "this Windows has custom triggers";
  }
  EXPECT_EQ(CurrentMachine().systemTriggers->Raise(L"{00000000-0000-0000-0000-000000000001}"),
            0xC0000002U);
}

TEST(OobeTest, IsNotKnownWhereItCannotBeAsked) {
  if (GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "OOBEComplete") != nullptr) {
    GTEST_SKIP() << "this Windows can be asked";
  }
  const Oobe::State state = CurrentMachine().oobe->Query();
  EXPECT_FALSE(state.known);
  EXPECT_FALSE(state.complete);
}

TEST(LockdownLibrariesTest, LoadsFromAFullPathOnly) {
  LockdownLibraries& libraries = *CurrentMachine().lockdownLibraries;
  EXPECT_EQ(libraries.Load(L"kernel32.dll").Error(), static_cast<ErrorCode>(ERROR_BAD_PATHNAME));
  const Tests::TempFolder folder;
  EXPECT_NE(libraries.Load(folder / L"none.dll").Error(), 0U);
}

TEST(LockdownLibrariesTest, AnswersAFailureWhenTheLibraryLacksTheQuery) {
  wchar_t folder[MAX_PATH];
  GetSystemDirectoryW(folder, MAX_PATH);
  auto library = CurrentMachine().lockdownLibraries->Load(std::wstring(folder) + L"\\version.dll");
  ASSERT_TRUE(library);
  std::int32_t mode = 77;
  EXPECT_LT((*library)->QueryMode(mode), 0);
  EXPECT_EQ(mode, 77);
}

TEST(SessionsTest, NamesTheUserOfTheConsole) {
  const Sessions& sessions = *CurrentMachine().sessions;
  const std::uint32_t console = sessions.ActiveConsoleSession();
  const auto user = sessions.QueryText(console, SessionText::UserName);
  const auto domain = sessions.QueryText(console, SessionText::DomainName);
  ASSERT_TRUE(user);
  ASSERT_TRUE(domain);
  wchar_t name[256];
  DWORD length = 256;
  ASSERT_NE(GetUserNameW(name, &length), FALSE);
  EXPECT_EQ(*user, name);
  EXPECT_FALSE(domain->empty());
}

TEST(SessionsTest, ATestIsNotLocalSystem) {
  const auto answer = CurrentMachine().sessions->ProcessIsLocalSystem();
  ASSERT_TRUE(answer);
  EXPECT_FALSE(*answer);
}

}  // namespace
}  // namespace Vx::Platform
