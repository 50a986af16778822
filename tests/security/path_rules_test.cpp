#include "security/path_rules.h"

#include "support/test.h"

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
      // Letters that language-aware folding would convert to i, s and k.
      {L"C:\\W\u0131ndows\\x", L"C:\\windows\\", false},
      {L"C:\\Window\u017F\\x", L"C:\\windows\\", false},
      {L"\u212A:\\windows\\x", L"K:\\windows\\", false},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(BeginsWith(c.text, c.prefix), c.begins) << testing::PrintToString(c.text);
  }
}

TEST(IsPlainPath, AcceptsOnlyDriveFoldersAndName) {
  for (const wchar_t* plain :
       {L"C:\\Program Files (x86)\\Vx.Tool\\a-b_1.exe", L"C:\\\u00E9\u4E2D\\x"}) {
    EXPECT_TRUE(IsDrivePath(plain) && IsPlainPath(plain)) << testing::PrintToString(plain);
  }
  for (const wchar_t* onDrive :
       {L"C:\\", L"C:/a", L"C:\\a/b", L"C:\\a\\\\b", L"C:\\a\\..\\b", L"C:\\a.\\b", L"C:\\a\\b ",
        L"C:\\a:b", L"C:\\a\\b:c.exe", L"C:\\a\\*", L"C:\\a\\b\x01"}) {
    EXPECT_TRUE(IsDrivePath(onDrive) && !IsPlainPath(onDrive)) << testing::PrintToString(onDrive);
  }
  for (const wchar_t* other :
       {L"C:a", L"", L"a\\b", L"\\\\server\\share\\a", L"\\\\?\\C:\\a", L"1:\\a", L"\u00E9:\\a"}) {
    EXPECT_FALSE(IsDrivePath(other) || IsPlainPath(other)) << testing::PrintToString(other);
  }
}

TEST(WindowsAppsFolder, IsTheTextUpToItsName) {
  static constexpr wchar_t kNone[] = L"none";
  static constexpr struct {
    const wchar_t* path;
    const wchar_t* onDrive;
    const wchar_t* below;  // below "C:\Program Files\"
  } kCases[] = {
      {L"D:\\WindowsApps\\a\\b.exe", L"D:\\WindowsApps", kNone},
      {L"D:\\windowsapps\\a", kNone, kNone},
      {L"D:\\WindowsApps", kNone, kNone},
      {L"D:\\WindowsApps2\\a", kNone, kNone},
      {L"D:\\x\\WindowsApps\\a", kNone, kNone},
      {L"C:\\Program Files\\WindowsApps\\a", kNone, L"C:\\Program Files\\WindowsApps"},
      {L"c:\\program files\\windowsapps\\a", kNone, L"c:\\program files\\windowsapps"},
      {L"C:\\Program Files\\WindowsApps", kNone, kNone},
      {L"C:\\Program Files\\x\\WindowsApps\\a", kNone, kNone},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(c.path));
    EXPECT_EQ(DriveWindowsAppsFolder(c.path).value_or(kNone), c.onDrive);
    EXPECT_EQ(WindowsAppsFolderBelow(L"C:\\Program Files\\", c.path).value_or(kNone), c.below);
  }
}

}  // namespace

}  // namespace Vx::Tessel::Security
