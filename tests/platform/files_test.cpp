#include "platform/files.h"

#include <gtest/gtest.h>

#include <string_view>

#include <windows.h>

#include "platform/machine.h"
#include "support/temp_folder.h"

namespace Vx::Platform {
namespace {

constexpr std::size_t kMuch = 1U << 20;

class FilesTest : public testing::Test {
 protected:
  void Write(const std::wstring& file, std::string_view text) {
    ASSERT_EQ(files.Overwrite(file, std::as_bytes(std::span(text))), 0U);
  }

  std::string Text(const std::wstring& file) {
    const auto content = files.Read(file, kMuch);
    if (!content) return "error " + std::to_string(content.Error());
    return {reinterpret_cast<const char*>(content->data()), content->size()};
  }

  Files& files = *CurrentMachine().files;
  Tests::TempFolder folder;
  std::wstring path = folder / L"a file.dat";
  std::wstring other = folder / L"other.dat";
};

TEST_F(FilesTest, NobodyChangesAFileThatIsOpenReadLocked) {
  Write(path, "content");
  Write(other, "other");
  const auto lock = files.OpenReadLocked(path);
  ASSERT_TRUE(lock);
  EXPECT_EQ(files.Overwrite(path, {}), static_cast<ErrorCode>(ERROR_SHARING_VIOLATION));
  EXPECT_EQ(files.Touch(path), static_cast<ErrorCode>(ERROR_SHARING_VIOLATION));
  EXPECT_EQ(files.Remove(path), static_cast<ErrorCode>(ERROR_SHARING_VIOLATION));
  EXPECT_EQ(files.MoveOver(path, folder / L"away.dat"),
            static_cast<ErrorCode>(ERROR_SHARING_VIOLATION));
  EXPECT_EQ(files.MoveOver(other, path), static_cast<ErrorCode>(ERROR_ACCESS_DENIED));
  EXPECT_EQ(Text(path), "content");
  EXPECT_TRUE(files.OpenReadLocked(path)) << "readers share";
}

TEST_F(FilesTest, ALockIsRefusedWhileSomebodyWrites) {
  const UniqueHandle writer =
      AdoptFile(CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                            nullptr, CREATE_ALWAYS, 0, nullptr));
  ASSERT_NE(writer, nullptr);
  EXPECT_EQ(files.OpenReadLocked(path).Error(), static_cast<ErrorCode>(ERROR_SHARING_VIOLATION));
}

TEST_F(FilesTest, OverwritingLeavesNothingOfALongerFile) {
  Write(path, "a long content");
  Write(path, "short");
  EXPECT_EQ(Text(path), "short");
  Write(path, "");
  EXPECT_EQ(Text(path), "");
}

TEST_F(FilesTest, TouchingMakesAFileOnlyWhereThereIsNone) {
  EXPECT_EQ(files.Touch(path), 0U);
  EXPECT_EQ(Text(path), "");
  Write(path, "kept");
  EXPECT_EQ(files.Touch(path), 0U);
  EXPECT_EQ(Text(path), "kept");
}

TEST_F(FilesTest, ReadsUpToTheLimitAndNotOneByteMore) {
  Write(path, "12345678");
  EXPECT_TRUE(files.Read(path, 8));
  EXPECT_EQ(files.Read(path, 7).Error(), static_cast<ErrorCode>(ERROR_FILE_TOO_LARGE));
}

TEST_F(FilesTest, MovesOverAFileThatIsThere) {
  Write(path, "new");
  Write(other, "old");
  EXPECT_EQ(files.MoveOver(path, other), 0U);
  EXPECT_EQ(Text(other), "new");
  EXPECT_EQ(files.Attributes(path).Error(), static_cast<ErrorCode>(ERROR_FILE_NOT_FOUND));
}

TEST_F(FilesTest, FindsANameOnlyWhenItIsSpelledOut) {
  Write(path, "");
  const struct {
    const wchar_t* name;
    bool found;
  } kCases[] = {
      {L"a file.dat", true}, {L"A FILE.DAT", true},  {L"other.dat", false}, {L"*", false},
      {L"a file.*", false},  {L"a fil?.dat", false}, {L"a<.dat", false},    {L"a file>dat", false},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(files.ExistsByExactName(folder / c.name), c.found)
        << std::string(c.name, c.name + std::wcslen(c.name));
  }
  EXPECT_TRUE(files.ExistsByExactName(L"\\\\?\\" + path)) << "the question mark of the prefix";
  EXPECT_FALSE(files.ExistsByExactName(L""));
}

TEST_F(FilesTest, GivesTheSystemsErrorForWhatIsMissing) {
  const std::wstring deep = folder / L"none\\file.dat";
  EXPECT_EQ(files.Read(path, kMuch).Error(), static_cast<ErrorCode>(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(files.Read(deep, kMuch).Error(), static_cast<ErrorCode>(ERROR_PATH_NOT_FOUND));
  EXPECT_EQ(files.Overwrite(deep, {}), static_cast<ErrorCode>(ERROR_PATH_NOT_FOUND));
  EXPECT_EQ(files.MakeFolder(folder / L"none\\deeper"),
            static_cast<ErrorCode>(ERROR_PATH_NOT_FOUND));
  EXPECT_EQ(files.MakeFolder(folder.Path().wstring()),
            static_cast<ErrorCode>(ERROR_ALREADY_EXISTS));
}

}  // namespace
}  // namespace Vx::Platform
