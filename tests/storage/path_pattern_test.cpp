#include "storage/path_pattern.h"

#include <regex>

#include "support/test.h"

namespace Vx::Tessel::Server::Storage {

namespace {

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

TEST(IsFilePath, RefusesEachForbiddenCharacterAndNoOther) {
  for (const wchar_t c : std::wstring(L":*?\"<>|")) {
    EXPECT_FALSE(IsFilePath(std::wstring(L"C:\\a") + c)) << static_cast<int>(c);
  }
  EXPECT_TRUE(IsFilePath(L"Z:\\a b\\\x00E9\n.dat"));
}

}  // namespace

}  // namespace Vx::Tessel::Server::Storage
