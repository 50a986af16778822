#include "storage/path_pattern.h"

#include <regex>
#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace Vx::Tessel::Server::Storage {

namespace {

TEST(IsFilePath, KnowsDrivesNamesAndSeparators) {
  static constexpr std::pair<const wchar_t*, bool> kCases[] = {
      {L"C:\\ProgramData\\Vx\\SharedServices\\shared_store.dat", true},
      {L"C:/a/b.c", true},
      {L"\\a\\b", true},
      {L"a", true},
      {L"C:", true},
      {L"C:\\", true},
      {L"C:\\a\\", true},
      {L"", true},
      {L"C:\\a b\\\x00E9\n.dat", true},
      {L"C:\\a\\\\b", false},
      {L"\\\\server\\share", false},
      {L"\\\\?\\C:\\a", false},
      {L"C:\\a\\b:stream", false},
      {L"1:\\a", false},
      {L"CC:\\a", false},
      {L"C:\\a?", false},
      {L"C:\\a*", false},
      {L"C:\\a<b", false},
      {L"C:\\a|b", false},
      {L"C:\\\"a\"", false},
  };
  for (const auto& [path, valid] : kCases) {
    EXPECT_EQ(IsFilePath(path), valid) << testing::PrintToString(path);
  }
}

TEST(IsFilePath, AgreesWithTheExpressionOnEveryShortText) {
  const std::wregex expression(LR"(^(?:[a-zA-Z]:)?[\\/]?([^\\/:*?"<>|]+[\\/]?)*[^\\/:*?"<>|]*$)");
  constexpr std::wstring_view kAlphabet = L"a9:\\/?.";
  constexpr std::size_t kLength = 5;
  std::wstring text;
  const auto check = [&](const auto& self) -> void {
    ASSERT_EQ(IsFilePath(text), std::regex_match(text, expression)) << testing::PrintToString(text);
    if (text.size() == kLength) return;
    for (const wchar_t c : kAlphabet) {
      text.push_back(c);
      self(self);
      text.pop_back();
    }
  };
  check(check);
}

TEST(IsFilePath, TakesLinearTimeOnLongPaths) {
  EXPECT_FALSE(IsFilePath(std::wstring(1000000, L'a') + L"?"));
}

}  // namespace

}  // namespace Vx::Tessel::Server::Storage
