#include "security/pinned_key_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Vx::Tessel::Security {

namespace {

using testing::ElementsAre;

// A key of the right form; `fill` is a byte of its modulus.
std::string Key(const std::string& fill = "ab") {
  std::string text = "30 82 01 0a 02 82 01 01 00";
  for (int i = 0; i < 256; ++i) text += " " + fill;
  return text + " 02 03 01 00 01";
}

std::string Replaced(std::size_t position, const std::string& with) {
  return Key().replace(position, with.size(), with);
}

TEST(FormatPublicKey, WritesTwoLowerCaseDigitsAByteWithSingleBlanksBetween) {
  static constexpr unsigned char kKey[] = {0x30, 0x82, 0x0A, 0xFF};
  EXPECT_EQ(FormatPublicKey(std::as_bytes(std::span(kKey))), "30 82 0a ff");
  EXPECT_EQ(FormatPublicKey({}), "");
}

TEST(IsPinnedKey, AcceptsOnlyTheExactFormOfAnRsa2048Key) {
  const struct {
    const char* name;
    std::string text;
    bool accepted;
  } kCases[] = {
      {"exact", Key(), true},
      {"one character less", Key().substr(0, 808), false},
      {"a blank at the end", Key() + " ", false},
      {"upper-case digits", Key("AB"), false},
      {"another separator", Replaced(29, "-"), false},
      {"a blank for a digit", Replaced(30, " "), false},
      {"another modulus length", Replaced(12, "08"), false},
      {"another exponent", Replaced(807, "03"), false},
      {"a NUL in the middle", Replaced(400, std::string(1, '\0')), false},
      {"digits without blanks, of the same length", std::string(809, '3'), false},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(IsPinnedKey(c.text), c.accepted) << c.name;
  }
}

TEST(ParsePinnedKeys, ReadsOneKeyALineAndSkipsCommentsAndBlankLines) {
  const std::string first = Key("01");
  const std::string second = Key("02");
  const std::string text = "# comment; with \"marks\" [x]\r\n\n  \t\n" + first + "\r\n" + second +
                           " \t# of another team\n#" + Key("03");
  const auto file = ParsePinnedKeys(text);
  EXPECT_EQ(file.badLine, std::nullopt);
  EXPECT_THAT(file.keys, ElementsAre(first, second));
}

TEST(ParsePinnedKeys, NamesTheFirstMalformedLine) {
  const struct {
    const char* name;
    std::string text;
    std::optional<std::size_t> line;
  } kCases[] = {
      {"a key without a line end", Key(), std::nullopt},
      {"too short", "# a\n\n30 82\n", 3},
      {"after a good key", Key() + "\n" + Key("AB") + "\n", 2},
      {"a blank at the end of the line", Key() + " \r\n", 1},
      {"a CR in the middle", Key() + "\r\r\n", 1},
      {"a byte order mark", "\xEF\xBB\xBF" + Key(), 1},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(ParsePinnedKeys(c.text).badLine, c.line) << c.name;
  }
}

}  // namespace

}  // namespace Vx::Tessel::Security
