#include "json/json_object.h"

#include "support/test.h"

namespace Vx::Json {

namespace {

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

TEST(JsonObject, HasTwoWaysToAskForAnOptionalText) {
  const JsonObject object = JsonObject::Parse(kSample);
  EXPECT_EQ(object.GetNamedString(L"absent", L"0"), L"0");
  EXPECT_EQ(object.GetNamedString(L"key", L"0"), L"first");
  EXPECT_THAT([&] { object.GetNamedString(L"number", L"0"); },
              Throws<Platform::WindowsRuntimeError>(
                  Property(&Platform::WindowsRuntimeError::code, kIllegalMethodCall)));
  EXPECT_EQ(object.FindString(L"absent"), std::nullopt);
  EXPECT_EQ(object.FindString(L"number"), std::nullopt);
  EXPECT_EQ(object.FindString(L"key"), L"first");
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
