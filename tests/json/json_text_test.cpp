#include "json/json_text.h"

#include <limits>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "json/json_object.h"

namespace Vx::Json {

namespace {

std::wstring Repeated(std::wstring_view part, std::size_t count) {
  std::wstring text;
  text.reserve(part.size() * count);
  for (std::size_t i = 0; i < count; ++i) text.append(part);
  return text;
}

bool IsValid(const std::wstring& text) {
  WideDocument document;
  return ParseJson(document, text);
}

// The other reader of this folder, asked about the same value.
bool IsValidInObject(const std::wstring& text) {
  try {
    JsonObject::Parse(L"{\"v\":" + text + L"}");
    return true;
  } catch (const winrt::hresult_error& error) {
    EXPECT_EQ(error.code(), kInvalidJsonString);
    return false;
  }
}

TEST(ParseJson, AcceptsExactlyTheGrammarAndPairedSurrogates) {
  using namespace std::string_literals;
  static const struct {
    std::wstring text;
    bool valid;
  } kCases[] = {
      {L"null", true},
      {L" \t\r\n{ \"a\" : [ true , false , null ] , \"b\" : { } } \n", true},
      {L"\"\"", true},
      {L"\"\\\"\\\\\\/\\b\\f\\n\\r\\t\\u00e9\\u00E9\"", true},
      {L"0", true},
      {L"-0", true},
      {L"1e5", true},
      {L"1E+5", true},
      {L"-1.50e-3", true},
      {L"", false},
      {L" ", false},
      {L"nul", false},
      {L"nulll", false},
      {L"True", false},
      {L"{} {}", false},
      {L"[1,]", false},
      {L"[,1]", false},
      {L"[1 2]", false},
      {L"[1}", false},
      {L"]", false},
      {L"{\"a\":1,}", false},
      {L"{\"a\" 1}", false},
      {L"{\"a\":}", false},
      {L"{a:1}", false},
      {L"{1:1}", false},
      {L"{\"a\":1", false},
      {L"/* */1", false},
      {L"'a'", false},
      {L"01", false},
      {L"-", false},
      {L"+1", false},
      {L".5", false},
      {L"1.", false},
      {L"1e", false},
      {L"1e+", false},
      {L"0x10", false},
      {L"NaN", false},
      {L"Infinity", false},
      {L"\"a", false},
      {L"\"\\\"", false},
      {L"\"\\x41\"", false},
      {L"\"\\u12\"", false},
      {L"\"\\u12G4\"", false},
      {L"\"\\U0041\"", false},
      {L"\"tab\there\"", false},
      {L"\"\0\""s, false},
      {L"1\0"s, false},
      {L"\xFEFF{}", false},
      // Surrogates: a pair may be raw or escaped, but whole.
      {L"\"\xD83D\xDE00\"", true},
      {L"\"\\uD83D\\uDE00\"", true},
      {L"\"\\uDBFF\\uDFFF\"", true},
      {L"\"\xD83D\"", false},
      {L"\"\xDE00\"", false},
      {L"\"\xD83Dx\"", false},
      {L"\"\xD83D", false},
      {L"\"\\uDC00\"", false},
      {L"\"\\uDE00\\uD83D\"", false},
      {L"\"\\uD83D\"", false},
      {L"\"\\uD83D\\n\"", false},
      {L"\"\\uD83D\\u0041\"", false},
      {L"\"\\uD83D\xDE00\"", false},
      {L"\"\xD83D\\uDE00\"", false},
      // Numbers that no double holds, and exponents that would make rapidjson's own arithmetic
      // wrap.
      {L"1e308", true},
      {L"1e309", false},
      {L"-1e999999999999999999999", false},
      {L"1e-999999999999999999999", false},
      {L"0e999999999999999999999", false},
      {L"0.00000000000000000000000000000001e-2147483639", false},
      {Repeated(L"9", 308), true},
      {Repeated(L"9", 400), false},
      {L"0." + Repeated(L"0", 100000) + L"1", true},
      {Repeated(L"1", 400) + L"e-395", false},
      {L"1e-99999999", true},
      {L"[1e400000000]", false},
      {L"\"1e999999999999\"", true},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(c.text.substr(0, 60)));
    EXPECT_EQ(IsValid(c.text), c.valid);
    EXPECT_EQ(IsValidInObject(c.text), c.valid && !c.text.empty());
  }
}

TEST(ParseJson, RefusesNestingBeyondItsLimitAtAnyDepth) {
  const auto nested = [](std::wstring_view open, std::wstring_view close, std::size_t levels) {
    return Repeated(open, levels) + L"1" + Repeated(close, levels);
  };
  EXPECT_TRUE(IsValid(nested(L"[", L"]", kMaxNesting)));
  EXPECT_FALSE(IsValid(nested(L"[", L"]", kMaxNesting + 1)));
  EXPECT_TRUE(IsValid(nested(L"{\"a\":", L"}", kMaxNesting)));
  EXPECT_FALSE(IsValid(nested(L"{\"a\":", L"}", kMaxNesting + 1)));
  EXPECT_FALSE(IsValid(nested(L"[", L"]", 100000)));
  EXPECT_FALSE(IsValid(nested(L"{\"a\":[", L"]}", 100000)));
  EXPECT_FALSE(IsValid(Repeated(L"[", 100000)));
  EXPECT_FALSE(IsValid(Repeated(L"{\"a\":", 100000)));
  EXPECT_TRUE(IsValid(L"[" + Repeated(L"[],", 100000) + L"[]]"));
}

TEST(ParseJson, GivesEachNumberTheNarrowestTypeThatHoldsIt) {
  WideDocument document;
  ASSERT_TRUE(ParseJson(document,
                        L"[4294967295,-2147483648,4294967296,-9223372036854775808,"
                        L"18446744073709551615,18446744073709551616,-9223372036854775809,1.5,1e2,"
                        L"1e-400,-0]"));
  EXPECT_EQ(document[0].GetUint(), 4294967295U);
  EXPECT_EQ(document[1].GetInt(), std::numeric_limits<int>::min());
  EXPECT_FALSE(document[2].IsUint());
  EXPECT_EQ(document[2].GetInt64(), 4294967296);
  EXPECT_EQ(document[3].GetInt64(), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(document[4].GetUint64(), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(document[5].GetDouble(), 18446744073709551616.0);
  EXPECT_TRUE(document[6].IsDouble());
  EXPECT_EQ(document[7].GetDouble(), 1.5);
  EXPECT_EQ(document[8].GetDouble(), 100.0);
  EXPECT_EQ(document[9].GetDouble(), 0.0);
  EXPECT_EQ(document[10].GetInt(), 0);
}

TEST(ParseJson, KeepsEscapedNulAndFindsTheFirstOfRepeatedKeys) {
  WideDocument document;
  ASSERT_TRUE(ParseJson(document, L"{\"a\":\"x\\u0000y\",\"\\u0061\":2}"));
  const WideValue& value = document[L"a"];
  EXPECT_EQ(std::wstring(value.GetString(), value.GetStringLength()), std::wstring(L"x\0y", 3));
  EXPECT_EQ(document.MemberCount(), 2U);
}

TEST(ParseJson, LeavesNullBehindAFailureAndCanBeUsedAgain) {
  WideDocument document;
  ASSERT_TRUE(ParseJson(document, L"{\"a\":1}"));
  ASSERT_FALSE(ParseJson(document, L"{\"a\":[1,2,{\"b\":"));
  EXPECT_TRUE(document.IsNull());
  EXPECT_TRUE(ParseJson(document, L"[3]"));
  EXPECT_EQ(document[0].GetInt(), 3);
}

TEST(WideValueMisuse, ThrowsInsteadOfEndingTheProcess) {
  WideDocument document;
  ASSERT_TRUE(ParseJson(document, L"[1]"));
  EXPECT_THROW(document[0].GetString(), Misuse);
  EXPECT_THROW(document[7U], Misuse);
  EXPECT_THROW(document[L"a"], Misuse);
}

TEST(InlineDocument, GoesOnOnTheHeapWhenItsOwnMemoryIsFull) {
  std::wstring text = L"[";
  for (int i = 0; i < 5000; ++i) text += L"{\"key\":\"a text that is no short one\"},";
  text += L"null]";
  InlineDocument<1024> document;
  ASSERT_TRUE(ParseJson(*document, text));
  EXPECT_EQ(JsonText(*document), text);
}

TEST(WriteJson, WritesCompactTextAndEscapesWhatHasTo) {
  static constexpr std::pair<const wchar_t*, const wchar_t*> kCases[] = {
      {L" { \"b\" : [ 1 , -2.50 , true , null ] , \"a\" : { } } ",
       L"{\"b\":[1,-2.5,true,null],\"a\":{}}"},
      {L"\"\\u0022\\u005C\\/\\u000a\\u0000\\u001f\\u007f\"", L"\"\\\"\\\\/\\n\\u0000\\u001F\x7F\""},
      {L"\"\\uD83D\\uDE00\\u00e9\"", L"\"\xD83D\xDE00\xE9\""},
  };
  for (const auto& [text, written] : kCases) {
    WideDocument document;
    ASSERT_TRUE(ParseJson(document, text));
    EXPECT_EQ(JsonText(document), written);
  }
}

TEST(WriteJson, RefusesANumberThatJsonCannotSay) {
  TextBuffer buffer;
  EXPECT_FALSE(WriteJson(WideValue(std::numeric_limits<double>::infinity()), buffer));
}

}  // namespace

}  // namespace Vx::Json
