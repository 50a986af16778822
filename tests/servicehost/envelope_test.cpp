#include "servicehost/envelope.h"

#include "support/test.h"

namespace Vx::Hosting::ServiceHost {
namespace {

TEST(EnvelopeTest, CarriesEveryTextUnchanged) {
  const std::wstring texts[] = {L"",
                                L"{\"a\": 1 , \"b\" :\t2}",
                                L"{broken \\ \"",
                                L"\x1 \r\n \x2028 \xE9 \xFFFF",
                                L"\xD83D\xDE00",
                                std::wstring(100'000, L'\xE9')};
  for (const std::wstring& text : texts) {
    const auto command = ParseCommand(WriteCommand({4294967295U, text}));
    ASSERT_TRUE(command);
    EXPECT_EQ(command->id, 4294967295U);
    EXPECT_EQ(command->request, text);
    const auto result = ParseResult(WriteResult({0x20000003, text}));
    ASSERT_TRUE(result);
    EXPECT_EQ(result->text, text);
  }
  EXPECT_FALSE(ParseResult(WriteResult({0, std::nullopt}))->text);
  const auto refused = ParseResult(WriteResult({0, std::nullopt, L"refused", L"not_\"stored"}));
  EXPECT_EQ(refused->decision, L"refused");
  EXPECT_EQ(refused->reason, L"not_\"stored");
  // An unpaired surrogate, as a log line may contain, is written as U+FFFD.
  EXPECT_EQ(ParseResult(WriteResult({0, L"a\xD83D"}))->text, L"a\xFFFD");
}

TEST(EnvelopeTest, IgnoresMembersOfAResultFromALaterVersion) {
  const auto result =
      ParseResult(R"({"reason":{"a":[1]},"code":7,"response":"x","record":7,"more":1})");
  ASSERT_TRUE(result);
  EXPECT_EQ(result->code, 7U);
  EXPECT_EQ(result->text, L"x");
  EXPECT_FALSE(ParseResult(R"({"code":7,"code":7})"));
}

// json_text_test.cpp covers the grammar.
TEST(EnvelopeTest, RefusesEverythingElse) {
  const std::string cases[] = {
      "",
      "[]",
      R"({"id":1})",
      R"({"request":"{}"})",
      R"({"id":1,"request":{}})",
      R"({"id":"1","request":""})",
      R"({"id":-1,"request":""})",
      R"({"id":1.0,"request":""})",
      R"({"id":4294967296,"request":""})",
      R"({"id":1,"id":2,"request":""})",
      R"({"id":1,"request":"","more":1})",
      R"({"id":1,"request":""} x)",
      R"({"id":1,"request":"\u0000"})",
      "{\"id\":1,\"request\":\"\xC0\x80\"}",
      std::string(kLongestCommand + 1, '{'),
  };
  for (const std::string& message : cases) {
    EXPECT_FALSE(ParseCommand(message)) << message.substr(0, 80);
  }
}

}  // namespace
}  // namespace Vx::Hosting::ServiceHost
