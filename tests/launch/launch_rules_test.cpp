#include "launch/launch_rules.h"

#include "support/test.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using namespace std::string_view_literals;

constexpr wchar_t kProgram[] = L"C:\\Program Files\\a b.exe";
constexpr wchar_t kQuoted[] = L"\"C:\\Program Files\\a b.exe\"";
constexpr std::size_t kQuotedSize = std::size(kQuoted) - 1;

constexpr std::size_t kLongest = 32766;  // Windows documents 32,767 including the terminator
constexpr std::size_t kRoom = kLongest - kQuotedSize - 1;

TEST(AppCommandLine, QuotesThePathOnlyBeforeAParameterAndRefusesWhatIsTooLong) {
  EXPECT_EQ(AppCommandLine(kProgram, L""), kProgram);
  EXPECT_EQ(AppCommandLine(kProgram, L"x \"y"), kQuoted + std::wstring(L" x \"y"));
  EXPECT_EQ(AppCommandLine(kProgram, std::wstring(kRoom, L'p')).value().size(), kLongest);
  EXPECT_FALSE(AppCommandLine(kProgram, std::wstring(kRoom + 1, L'p')));
  EXPECT_FALSE(AppCommandLine(std::wstring(kLongest + 1, L'p'), L""));
}

TEST(SessionCommandLine, DropsArgumentsThatDoNotFitAndStaysBoundedWhateverThePath) {
  EXPECT_EQ(SessionCommandLine(kProgram, L""), kQuoted);
  EXPECT_EQ(SessionCommandLine(kProgram, L"a"), kQuoted + std::wstring(L" a"));
  EXPECT_EQ(SessionCommandLine(kProgram, std::wstring(kRoom, L'a')).size(), kLongest);
  for (const std::size_t tooMany : {kRoom + 1, std::size_t{40000}}) {
    EXPECT_EQ(SessionCommandLine(kProgram, std::wstring(tooMany, L'a')), kQuoted);
  }
  for (const std::size_t length : {kLongest - 2, kLongest, kLongest * 3}) {
    EXPECT_EQ(SessionCommandLine(std::wstring(length, L'p'), L"a").size(), kLongest);
  }
}

TEST(SessionWorkingDirectory, FallsBackToTheFolderOfTheProgram) {
  const std::wstring longest(32767, L'd');
  const struct {
    std::wstring wanted;
    std::wstring program;
    std::wstring expected;
  } cases[] = {
      {L"D:\\work", L"C:\\a\\b.exe", L"D:\\work"},
      {longest, L"C:\\a\\b.exe", longest},
      {longest + L"d", L"C:\\a\\b.exe", L"C:\\a"},
      {L"", L"C:\\b.exe", L"C:\\"},
      {L"", L"\\\\server\\share\\b.exe", L"\\\\server\\share"},
      {L"", L"b.exe", L""},
      {L"", L"", L""},
      {L"", L"C:\\" + longest, L""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.wanted.substr(0, 20) + L"|" + c.program.substr(0, 20)));
    EXPECT_EQ(SessionWorkingDirectory(c.wanted, c.program), c.expected);
  }
}

TEST(EnvironmentForPackage, MovesOnlyTheTwoDataFolders) {
  static constexpr struct {
    const char* name;
    std::wstring_view before;
    std::wstring_view after;
  } kCases[] = {
      {"both",
       L"APPDATA=C:\\u\\AppData\\Roaming\0LOCALAPPDATA=C:\\u\\AppData\\Local\0TEMP=C:\\t\0\0"sv,
       L"APPDATA=C:\\u\\AppData\\Local\\Packages\\App_1\\LocalCache\\Roaming\0"
       L"LOCALAPPDATA=C:\\u\\AppData\\Local\\Packages\\App_1\\LocalCache\\Local\0TEMP=C:\\t\0\0"sv},
      {"the rest of the value stays", L"LOCALAPPDATA=C:\\AppData\\Local\\x\0\0"sv,
       L"LOCALAPPDATA=C:\\AppData\\Local\\Packages\\App_1\\LocalCache\\Local\\x\0\0"sv},
      {"a name with the same ending", L"MYAPPDATA=C:\\AppData\\Roaming\0\0"sv,
       L"MYAPPDATA=C:\\AppData\\Roaming\0\0"sv},
      {"another value", L"APPDATA=C:\\elsewhere\0\0"sv, L"APPDATA=C:\\elsewhere\0\0"sv},
      {"the part in the wrong variable", L"APPDATA=C:\\AppData\\Local\0\0"sv,
       L"APPDATA=C:\\AppData\\Local\0\0"sv},
      {"no terminator", L"A=1\0B=2"sv, L"A=1\0B=2\0\0"sv},
      {"nothing", L""sv, L"\0\0"sv},
      {"text after the end", L"A=1\0\0B=2\0\0"sv, L"A=1\0\0"sv},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(EnvironmentForPackage({c.before.begin(), c.before.end()}, L"App_1"),
              (std::vector<wchar_t>{c.after.begin(), c.after.end()}));
  }
}

TEST(IsRealUserProfile, ExcludesTheProfilesOfNobody) {
  static constexpr std::pair<const wchar_t*, bool> kCases[] = {
      {L"C:\\Users\\ann", true},
      {L"", false},
      {L"C:\\Windows\\system32\\config\\systemprofile", false},
      {L"C:\\Windows\\System32\\config\\systemprofile", true},  // the search is case-sensitive
      {L"C:\\Users\\Default\\x", false},
      {L"C:\\Users\\Default", true},  // no backslash follows
      {L"C:\\Users\\defaultuser0", true},
      {L"C:\\Users\\\\defaultuser0", false},
  };
  for (const auto& [profile, real] : kCases) {
    SCOPED_TRACE(testing::PrintToString(profile));
    EXPECT_EQ(IsRealUserProfile(profile), real);
  }
}

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane
