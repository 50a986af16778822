#include "security/path_rules.h"

#include <gtest/gtest.h>

namespace Vx::Tessel::Security {

namespace {

TEST(BeginsWith, FoldsTheLettersAToZAndNothingElse) {
  static constexpr struct {
    const wchar_t* text;
    const wchar_t* prefix;
    bool begins;
  } kCases[] = {
      {L"C:\\Windows\\x", L"C:\\windows\\", true},
      {L"c:\\WINDOWS\\", L"C:\\windows\\", true},
      {L"C:\\Windows", L"C:\\windows\\", false},
      {L"C:\\Windows2\\x", L"C:\\windows\\", false},
      {L"", L"C:\\windows\\", false},
      {L"\u00C9:\\", L"\u00E9:\\", false},
      {L"@[`{", L"`{@[", false},
      // Letters that language-aware folding would turn into i, s and k.
      {L"C:\\W\u0131ndows\\x", L"C:\\windows\\", false},
      {L"C:\\Window\u017F\\x", L"C:\\windows\\", false},
      {L"\u212A:\\windows\\x", L"K:\\windows\\", false},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(BeginsWith(c.text, c.prefix), c.begins) << testing::PrintToString(c.text);
  }
}

TEST(IsPlainPath, AcceptsOnlyDriveFoldersAndName) {
  static constexpr struct {
    const wchar_t* path;
    bool drive;
    bool plain;
  } kCases[] = {
      {L"C:\\Program Files (x86)\\Vx.Tool\\a-b_1.exe", true, true},
      {L"C:\\\u00E9\u4E2D\\x", true, true},
      {L"C:\\", true, false},
      {L"C:/a", true, false},
      {L"C:\\a/b", true, false},
      {L"C:\\a\\\\b", true, false},
      {L"C:\\a\\..\\b", true, false},
      {L"C:\\a.\\b", true, false},
      {L"C:\\a\\b ", true, false},
      {L"C:\\a:b", true, false},
      {L"C:\\a\\b:c.exe", true, false},
      {L"C:\\a\\*", true, false},
      {L"C:\\a\\b\x01", true, false},
      {L"C:a", false, false},
      {L"", false, false},
      {L"a\\b", false, false},
      {L"\\\\server\\share\\a", false, false},
      {L"\\\\?\\C:\\a", false, false},
      {L"1:\\a", false, false},
      {L"\u00E9:\\a", false, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(c.path));
    EXPECT_EQ(IsDrivePath(c.path), c.drive);
    EXPECT_EQ(IsPlainPath(c.path), c.plain);
  }
}

std::optional<std::wstring> Expected(const wchar_t* folder) {
  return folder == nullptr ? std::nullopt : std::optional<std::wstring>(folder);
}

TEST(WindowsAppsFolder, IsTheTextUpToItsName) {
  static constexpr struct {
    const wchar_t* path;
    const wchar_t* onDrive;  // null: none
    const wchar_t* below;    // below "C:\Program Files\"
  } kCases[] = {
      {L"D:\\WindowsApps\\a\\b.exe", L"D:\\WindowsApps", nullptr},
      {L"D:\\windowsapps\\a", nullptr, nullptr},
      {L"D:\\WindowsApps", nullptr, nullptr},
      {L"D:\\WindowsApps2\\a", nullptr, nullptr},
      {L"D:\\x\\WindowsApps\\a", nullptr, nullptr},
      {L"C:\\Program Files\\WindowsApps\\a", nullptr, L"C:\\Program Files\\WindowsApps"},
      {L"c:\\program files\\windowsapps\\a", nullptr, L"c:\\program files\\windowsapps"},
      {L"C:\\Program Files\\WindowsApps", nullptr, nullptr},
      {L"C:\\Program Files\\x\\WindowsApps\\a", nullptr, nullptr},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(c.path));
    EXPECT_EQ(DriveWindowsAppsFolder(c.path), Expected(c.onDrive));
    EXPECT_EQ(WindowsAppsFolderBelow(L"C:\\Program Files\\", c.path), Expected(c.below));
  }
}

}  // namespace

}  // namespace Vx::Tessel::Security
