#include "json/json_object.h"

#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Vx::Json {

namespace {

using ::testing::ElementsAre;

// Returns the code that `call` throws, or zero.
std::int32_t CodeOf(const std::function<void()>& call) {
  try {
    call();
    return 0;
  } catch (const Platform::WindowsRuntimeError& error) {
    return error.code();
  }
}

const wchar_t kSample[] =
    L" { \"text\" : \"a\\u0041\\n\" , \"number\" : 1.90e0 , \"yes\" : true , \"none\" : null ,"
    L" \"inner\" : { \"deep\" : [ 1 , { \"x\" : 2 } ] } , \"\\u006bey\" : \"first\" ,"
    L" \"key\" : \"second\" } ";

TEST(JsonObject, ReadsEachKindOfMember) {
  const JsonObject object = JsonObject::Parse(kSample);
  EXPECT_EQ(object.GetNamedString(L"text"), L"aA\n");
  EXPECT_EQ(object.GetNamedNumber(L"number"), 1.9);
  EXPECT_EQ(object.GetNamedObject(L"inner").Stringify(), L"{\"deep\":[1,{\"x\":2}]}");
  EXPECT_TRUE(object.HasKey(L"none"));
  EXPECT_FALSE(object.HasKey(L"deep"));
  EXPECT_FALSE(object.HasKey(L"tex"));
}

TEST(JsonObject, TellsAMissingMemberFromOneOfAnotherKind) {
  const JsonObject object = JsonObject::Parse(kSample);
  EXPECT_EQ(CodeOf([&] { object.GetNamedString(L"absent"); }), kJsonValueNotFound);
  EXPECT_EQ(CodeOf([&] { object.GetNamedString(L"none"); }), kIllegalMethodCall);
  EXPECT_EQ(CodeOf([&] { object.GetNamedNumber(L"text"); }), kIllegalMethodCall);
  EXPECT_EQ(CodeOf([&] { object.GetNamedObject(L"yes"); }), kIllegalMethodCall);
}

TEST(JsonObject, HasTwoWaysToAskForAnOptionalText) {
  const JsonObject object = JsonObject::Parse(kSample);
  EXPECT_EQ(object.GetNamedString(L"absent", L"0"), L"0");
  EXPECT_EQ(object.GetNamedString(L"key", L"0"), L"first");
  EXPECT_EQ(CodeOf([&] { object.GetNamedString(L"number", L"0"); }), kIllegalMethodCall);
  EXPECT_EQ(object.FindString(L"absent"), std::nullopt);
  EXPECT_EQ(object.FindString(L"number"), std::nullopt);
  EXPECT_EQ(object.FindString(L"key"), L"first");
}

TEST(JsonObject, RefusesTextThatIsNoObject) {
  for (const wchar_t* text : {L"", L"[1]", L"null", L"{\"a\":1", L"{} x", L"{\"a\":\"\\uDC00\"}"}) {
    EXPECT_EQ(CodeOf([&] { JsonObject::Parse(text); }), kInvalidJsonString);
  }
  EXPECT_EQ(CodeOf([] { JsonArray::Parse(L"{}"); }), kInvalidJsonString);
}

TEST(JsonObject, StringifyKeepsOrderAndRepeatedKeysAndSpellsEachValueOneWay) {
  EXPECT_EQ(JsonObject::Parse(kSample).Stringify(),
            L"{\"text\":\"aA\\n\",\"number\":1.9,\"yes\":true,\"none\":null,"
            L"\"inner\":{\"deep\":[1,{\"x\":2}]},\"key\":\"first\",\"key\":\"second\"}");
  EXPECT_EQ(JsonObject().Stringify(), L"{}");
}

TEST(JsonObject, StringifyIsStableAlsoForDoublesOfManyDigits) {
  for (const wchar_t* number :
       {L"0.1", L"0.12345678901234568", L"1.7976931348623157e308", L"5e-324", L"9007199254740993.5",
        L"123456789012345678901234567890"}) {
    const std::wstring once =
        JsonObject::Parse(L"{\"n\":" + std::wstring(number) + L"}").Stringify();
    EXPECT_EQ(JsonObject::Parse(once).Stringify(), once);
  }
}

TEST(JsonObject, ACopyOutlivesTheObjectItCameFrom) {
  const JsonObject inner = JsonObject::Parse(L"{\"p\":{\"n\":[1,2]}}").GetNamedObject(L"p");
  EXPECT_EQ(inner.Stringify(), L"{\"n\":[1,2]}");
}

TEST(JsonObject, LeavesOutAMemberOfAMemberObject) {
  static constexpr std::pair<const wchar_t*, const wchar_t*> kCases[] = {
      {L"{\"p\":{\"d\":1,\"x\":2},\"z\":3}", L"{\"p\":{\"x\":2},\"z\":3}"},
      {L"{\"p\":{\"x\":2,\"d\":{\"d\":1}}}", L"{\"p\":{\"x\":2}}"},
      {L"{\"p\":{\"x\":2,\"d\":1,\"y\":{\"d\":3}}}", L"{\"p\":{\"x\":2,\"y\":{\"d\":3}}}"},
      {L"{\"p\":{\"d\":1}}", L"{\"p\":{}}"},
      {L"{\"p\":{\"d\":1,\"\\u0064\":2}}", L"{\"p\":{}}"},
      {L"{\"p\":{ }}", L"{\"p\":{}}"},
      {L"{\"p\":[1],\"d\":1}", L"{\"p\":[1],\"d\":1}"},
      {L"{\"d\":1}", L"{\"d\":1}"},
      {L"{\"p\":{\"d\":1},\"p\":{\"d\":2}}", L"{\"p\":{},\"p\":{\"d\":2}}"},
  };
  for (const auto& [text, rest] : kCases) {
    EXPECT_EQ(JsonObject::Parse(text).StringifyWithout(L"p", L"d"), rest);
  }
}

TEST(JsonArray, ShowsElementsOfEveryKindInOrder) {
  const JsonArray array = JsonArray::Parse(L"[ {\"a\": 1}, 2.0, \"x\", [ ], null, {} ]");
  std::vector<std::wstring> texts;
  std::vector<JsonKind> kinds;
  for (const JsonValue& element : array) {
    texts.emplace_back(element.Text());
    kinds.push_back(element.Kind());
  }
  EXPECT_THAT(texts, ElementsAre(L"{\"a\":1}", L"2.0", L"\"x\"", L"[]", L"null", L"{}"));
  EXPECT_THAT(kinds, ElementsAre(JsonKind::Object, JsonKind::Number, JsonKind::String,
                                 JsonKind::Array, JsonKind::Null, JsonKind::Object));
  const JsonArray empty = JsonArray::Parse(L"[]");
  EXPECT_TRUE(empty.begin() == empty.end());
}

TEST(TruncateToUint32, HasAnAnswerForEveryNumber) {
  constexpr std::uint32_t kNone = std::numeric_limits<std::uint32_t>::max();
  static constexpr std::pair<double, std::uint32_t> kCases[] = {
      {1.9, 1},
      {-0.9, 0},
      {-1.0, kNone},
      {4294967295.9, kNone},
      {4294967296.0, kNone},
      {std::numeric_limits<double>::quiet_NaN(), kNone},
  };
  for (const auto& [number, truncated] : kCases) {
    EXPECT_EQ(TruncateToUint32(number), truncated) << number;
  }
}

}  // namespace

}  // namespace Vx::Json
