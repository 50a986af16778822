#include "json/json_text.h"

#include "json/json_object.h"
#include "support/test.h"

namespace Vx::Json {

namespace {

using Tests::Repeated;

bool IsValid(const std::wstring& text) {
  WideDocument document;
  return ParseJson(document, text);
}

void ExpectValid(const std::wstring& text, bool valid) {
  SCOPED_TRACE(testing::PrintToString(text.substr(0, 60)));
  EXPECT_EQ(IsValid(text), valid);
  std::int32_t code = 0;
  try {
    JsonObject::Parse(L"{\"v\":" + text + L"}");
  } catch (const Platform::WindowsRuntimeError& error) {
    code = error.code();
  }
  EXPECT_EQ(code, valid ? 0 : kInvalidJsonString);
}

TEST(ParseJson, AcceptsExactlyTheGrammar) {
  for (const wchar_t* text :
       {L"null", L" \t\r\n{ \"a\" : [ true , false , null ] , \"b\" : { } } \n", L"\"\"",
        L"\"\\\"\\\\\\/\\b\\f\\n\\r\\t\\u00e9\\u00E9\"", L"-0", L"1e5", L"1E+5", L"-1.50e-3"}) {
    ExpectValid(text, true);
  }
  for (const wchar_t* text :
       {L"",          L" ",         L"nul",       L"nulll",       L"True",        L"{} {}",
        L"[1,]",      L"[,1]",      L"[1 2]",     L"[1}",         L"]",           L"{\"a\":1,}",
        L"{\"a\" 1}", L"{\"a\":}",  L"{a:1}",     L"{1:1}",       L"{\"a\":1",    L"/* */1",
        L"'a'",       L"01",        L"-",         L"+1",          L".5",          L"1.",
        L"1e",        L"1e+",       L"0x10",      L"NaN",         L"Infinity",    L"\"a",
        L"\"\\\"",    L"\"\\x41\"", L"\"\\u12\"", L"\"\\u12G4\"", L"\"\\U0041\"", L"\"tab\there\"",
        L"\xFEFF{}"}) {
    ExpectValid(text, false);
  }
  ExpectValid(std::wstring(L"\"\0\"", 3), false);
  ExpectValid(std::wstring(L"1\0", 2), false);
}

TEST(ParseJson, WantsSurrogatesInPairsThatAreBothRawOrBothEscaped) {
  for (const wchar_t* text : {L"\"\xD83D\xDE00\"", L"\"\\uD83D\\uDE00\"", L"\"\\uDBFF\\uDFFF\""}) {
    ExpectValid(text, true);
  }
  for (const wchar_t* text :
       {L"\"\xD83D\"", L"\"\xDE00\"", L"\"\xD83Dx\"", L"\"\xD83D", L"\"\\uDC00\"",
        L"\"\\uDE00\\uD83D\"", L"\"\\uD83D\"", L"\"\\uD83D\\n\"", L"\"\\uD83D\\u0041\"",
        L"\"\\uD83D\xDE00\"", L"\"\xD83D\\uDE00\""}) {
    ExpectValid(text, false);
  }
}

TEST(ParseJson, RefusesNumbersThatNoDoubleHoldsOrWhoseExponentIsTooLong) {
  for (const std::wstring& text :
       {std::wstring(L"1e308"), Repeated(L"9", 308), L"0." + Repeated(L"0", 100000) + L"1",
        std::wstring(L"1e-99999999"), std::wstring(L"\"1e999999999999\"")}) {
    ExpectValid(text, true);
  }
  for (const std::wstring& text :
       {std::wstring(L"1e309"), std::wstring(L"-1e999999999999999999999"),
        std::wstring(L"1e-999999999999999999999"), std::wstring(L"0e999999999999999999999"),
        std::wstring(L"0.00000000000000000000000000000001e-2147483639"), Repeated(L"9", 400),
        Repeated(L"1", 400) + L"e-395", std::wstring(L"[1e400000000]")}) {
    ExpectValid(text, false);
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
                        L"[4294967295,4294967296,-9223372036854775808,18446744073709551615,"
                        L"18446744073709551616,-9223372036854775809,1e2,1e-400,-0]"));
  EXPECT_TRUE(document[0].IsUint());
  EXPECT_FALSE(document[1].IsUint());
  EXPECT_EQ(JsonText(document),
            L"[4294967295,4294967296,-9223372036854775808,18446744073709551615,"
            L"18446744073709553000.0,-9223372036854776000.0,100.0,0.0,0]");
  // Exact to the last bit, unlike the parser's own conversion.
  ASSERT_TRUE(ParseJson(document, L"6.9294956446009195e15"));
  EXPECT_EQ(document.GetDouble(), 6.9294956446009195e15);
}

TEST(ParseJson, KeepsEscapedNulAndFindsTheFirstOfRepeatedKeys) {
  WideDocument document;
  ASSERT_TRUE(ParseJson(document, L"{\"a\":\"x\\u0000y\",\"\\u0061\":2}"));
  const WideValue& value = document[L"a"];
  EXPECT_EQ(std::wstring(value.GetString(), value.GetStringLength()), std::wstring(L"x\0y", 3));
}

TEST(ParseJson, LeavesNullBehindAFailureAndCanBeUsedAgain) {
  WideDocument document;
  ASSERT_FALSE(ParseJson(document, L"{\"a\":[1,2,{\"b\":"));
  EXPECT_TRUE(document.IsNull());
  ASSERT_TRUE(ParseJson(document, L"[3]"));
  // Using a value as another type is a programming error, but must not terminate the process.
  EXPECT_THROW(document[0].GetString(), Misuse);
  EXPECT_THROW(document[7U], Misuse);
  EXPECT_THROW(document[L"a"], Misuse);
}

// After an escape, the reader moves every code unit that follows, including whole runs.
TEST(ParseJson, KeepsWhatStandsBeforeAndBehindAnEscape) {
  std::wstring rest;
  for (wchar_t unit = L'A'; rest.size() < 200; unit = unit == L'Z' ? L'A' : unit + 1) rest += unit;
  for (std::size_t at = 0; at <= rest.size(); ++at) {
    std::wstring text = rest, escaped = rest;
    text.insert(at, L"\n");
    escaped.insert(at, L"\\n");
    WideDocument document;
    ASSERT_TRUE(ParseJson(document, L'"' + escaped + L'"'));
    ASSERT_EQ(document.GetString(), text) << at;
  }
}

TEST(InlineDocument, GoesOnOnTheHeapWhenItsOwnMemoryIsFull) {
  const std::wstring text =
      L"[" + Repeated(L"{\"key\":\"a text that is no short one\"},", 5000) + L"null]";
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
  TextBuffer buffer;
  EXPECT_FALSE(WriteJson(WideValue(std::numeric_limits<double>::infinity()), buffer));
}

}  // namespace

}  // namespace Vx::Json
