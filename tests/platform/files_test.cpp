#include "platform/files.h"

#include "support/test.h"

#include <aclapi.h>

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" decltype(&GetDriveTypeW) __imp_GetDriveTypeW;
extern "C" decltype(&GetSecurityInfo) __imp_GetSecurityInfo;
extern "C" decltype(&MoveFileExW) __imp_MoveFileExW;
extern "C" decltype(&WriteFile) __imp_WriteFile;
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace Vx::Platform {
namespace {

class FilesTest : public testing::Test {
 protected:
  FilesTest() {
    for (const auto& file : {path, other}) {
      EXPECT_EQ(files.Overwrite(file, content), 0U);
    }
  }

  Files& files = *CurrentMachine().files;
  const std::span<const std::byte> content = std::as_bytes(std::span("content", 8));
  Tests::TempFolder folder;
  std::wstring path = folder / L"a file.dat";
  std::wstring other = folder / L"other.dat";
};

// event_commands_test.cpp covers a file that cannot be locked because it is open for writing.
TEST_F(FilesTest, NobodyChangesAFileThatIsOpenReadLocked) {
  constexpr ErrorCode kShared = ERROR_SHARING_VIOLATION;
  const auto lock = files.OpenReadLocked(path);
  ASSERT_TRUE(lock);
  EXPECT_EQ(files.Overwrite(path, {}), kShared);
  EXPECT_EQ(files.Touch(path), kShared);
  EXPECT_EQ(files.Remove(path), kShared);
  EXPECT_EQ(files.MoveOver(path, folder / L"away.dat"), kShared);
  EXPECT_EQ(files.MoveOver(other, path), ErrorCode{ERROR_ACCESS_DENIED});
  EXPECT_TRUE(files.OpenReadLocked(path)) << "readers share";
}

TEST_F(FilesTest, LocksNoDevice) {
  EXPECT_EQ(files.OpenReadLocked(LR"(\\.\NUL)").Error(), ErrorCode{ERROR_BAD_FILE_TYPE});
}

TEST_F(FilesTest, ReadsUpToTheLimitAndNotOneByteMore) {
  EXPECT_TRUE(files.Read(path, 8));
  EXPECT_EQ(files.Read(path, 7).Error(), ErrorCode{ERROR_FILE_TOO_LARGE});
}

TEST_F(FilesTest, FindsANameOnlyWhenItIsSpelledOut) {
  for (const wchar_t* name : {L"a file.dat", L"A FILE.DAT"}) {
    EXPECT_TRUE(files.ExistsByExactName(folder / name));
  }
  for (const wchar_t* name :
       {L"third.dat", L"*", L"a file.*", L"a fil?.dat", L"a<.dat", L"a file>dat"}) {
    EXPECT_FALSE(files.ExistsByExactName(folder / name)) << testing::PrintToString(name);
  }
  EXPECT_TRUE(files.ExistsByExactName(L"\\\\?\\" + path)) << "the prefix's ? is not a wildcard";
  EXPECT_FALSE(files.ExistsByExactName(L""));
}

TEST_F(FilesTest, AWriteThatIsCutShortFails) {
  const Tests::ImportOverride cut(
      __imp_WriteFile, +[](HANDLE, const void*, DWORD size, DWORD* written, OVERLAPPED*) {
        *written = size - 1;
        return TRUE;
      });
  EXPECT_EQ(files.Overwrite(path, content), ErrorCode{ERROR_WRITE_FAULT});
  EXPECT_EQ((*files.Open(path, FileUse::Change))->Write(content), ErrorCode{ERROR_WRITE_FAULT});
}

// https://learn.microsoft.com/en-us/windows/win32/api/winbase/nf-winbase-movefileexw
TEST_F(FilesTest, ARenameIsOnTheDiskWhenItReturns) {
  static DWORD asked = 0;
  const Tests::ImportOverride watch(
      __imp_MoveFileExW, +[](const wchar_t*, const wchar_t*, DWORD flags) {
        asked = flags;
        return TRUE;
      });
  EXPECT_EQ(files.MoveOver(path, other), 0U);
  EXPECT_EQ(asked, DWORD{MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH});
}

TEST_F(FilesTest, OnlyARemoteDriveOrNoneIsElsewhere) {
  static UINT type = 0;
  const Tests::ImportOverride drives(
      __imp_GetDriveTypeW, +[](const wchar_t* root) {
        return root == std::wstring(L"Q:\\") ? type : UINT{DRIVE_FIXED};
      });
  for (type = DRIVE_UNKNOWN; type <= DRIVE_RAMDISK; ++type) {
    const bool elsewhere = type == DRIVE_REMOTE || type == DRIVE_NO_ROOT_DIR;
    EXPECT_EQ(files.IsElsewhere(L"Q:\\folder\\a.exe"), elsewhere) << type;
  }
}

TEST_F(FilesTest, AFileOfTheAdministratorsBelongsToTheSystemAndOneOfTheUsersDoesNot) {
  static WELL_KNOWN_SID_TYPE account{};
  const Tests::ImportOverride owners(
      __imp_GetSecurityInfo, +[](HANDLE, SE_OBJECT_TYPE, SECURITY_INFORMATION, PSID* owner, PSID*,
                                 PACL*, PACL*, PSECURITY_DESCRIPTOR*) {
        static std::byte sid[SECURITY_MAX_SID_SIZE];
        DWORD size = sizeof sid;
        *owner = sid;
        return CreateWellKnownSid(account, nullptr, sid, &size) != 0 ? DWORD{0} : GetLastError();
      });
  const auto opened = files.Open(path, FileUse::Inspect);
  for (const auto& [type, systems] : {std::pair(WinLocalSystemSid, true),
                                      {WinBuiltinAdministratorsSid, true},
                                      {WinBuiltinUsersSid, false}}) {
    account = type;
    EXPECT_EQ(*(*opened)->HasTrustedOwner(), systems) << type;
  }
}

}  // namespace
}  // namespace Vx::Platform
