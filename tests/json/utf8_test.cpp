#include "json/utf8.h"

#include "support/test.h"

namespace Vx::Json {

namespace {

using namespace std::literals;

TEST(Utf8, CarriesEveryLengthOfSequenceThereAndBack) {
  const std::wstring wide(L"a\0\x7F\x80\x7FF\x800\xFFFD\xFFFF\xD83D\xDE00\xDBFF\xDFFF", 12);
  const std::string narrow(
      "a\0\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBD\xEF\xBF\xBF\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF",
      24);
  EXPECT_EQ(ToUtf8(wide), narrow);
  EXPECT_EQ(ToWide(narrow), wide);
  EXPECT_TRUE(IsUtf8(narrow));
}

TEST(Utf8, ReplacesUnpairedSurrogates) {
  EXPECT_EQ(ToUtf8(L"\xDE00\xD83Dz\xD83D"), "\xEF\xBF\xBD\xEF\xBF\xBDz\xEF\xBF\xBD");
}

TEST(Utf8, RefusesWhatTheStandardRefusesWhereverItStands) {
  for (const std::string_view broken :
       {"\x80"sv, "\xC0\x80"sv, "\xC1\xBF"sv, "\xE0\x9F\xBF"sv, "\xED\xA0\x80"sv,
        "\xF0\x8F\xBF\xBF"sv, "\xF4\x90\x80\x80"sv, "\xF5\x80\x80\x80"sv, "\xFF"sv, "\xC3"sv,
        "\xE2\x82"sv, "\xF0\x9F\x98"sv, "\xC3("sv}) {
    for (const std::size_t before : {0U, 1U, 7U, 8U, 9U}) {
      for (const std::size_t after : {0U, 8U}) {
        const std::string text =
            std::string(before, 'x') + std::string(broken) + std::string(after, 'y');
        EXPECT_FALSE(IsUtf8(text)) << testing::PrintToString(text);
      }
    }
  }
  EXPECT_EQ(ToWide("a\xED\xA0\x80z"), L"a\xFFFD\xFFFD\xFFFDz");
}

}  // namespace

}  // namespace Vx::Json
