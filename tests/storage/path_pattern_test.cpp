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
  for (const wchar_t* other : {L"*", L"\"", L"<", L">", L"|", L"Z:\\a b\\\x00E9\n.dat"}) {
    EXPECT_EQ(IsFilePath(other), std::regex_match(other, expression))
        << testing::PrintToString(other);
  }
}

}  // namespace

}  // namespace Vx::Tessel::Server::Storage
