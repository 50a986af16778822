#include "service/json_request.h"

#include <string>

#include <gmock/gmock.h>

#include "support/log_capture.h"

namespace Vx::Tests {
namespace {

using namespace Tessel::Server::Services::Orvane;  // NOLINT(google-build-using-namespace)
using testing::ElementsAre;
using testing::IsEmpty;

const std::wstring kClass = L"warning|class Vx::Tessel::Server::Services::Orvane::OrvaneService.";

class JsonRequestTest : public testing::Test {
 protected:
  // The document is null for a text that is no JSON, as a parse-exempt command would see it.
  const Json::WideDocument* Parse(const wchar_t* text) {
    Json::ParseJson(document, text);
    return &document;
  }

  Json::WideDocument document;
  RequestProblem problem;
  RequestCaller caller{L"client", &problem};
  LogCapture log;
};

TEST_F(JsonRequestTest, ATextIsReadOrWhatIsWrongIsSaidInTheSameWords) {
  static constexpr struct {
    const wchar_t* request;
    const wchar_t* value;
    const wchar_t* warning;
  } kCases[] = {
      {L"{\"parameter\":\"\"}", L"", nullptr},
      {L"{\"parameter\":\"first\",\"parameter\":\"second\"}", L"first", nullptr},
      {L"{\"parameter\":\"before\\u0000after\"}", L"before", nullptr},
      {L"{\"parameter\\u0000\":\"text\"}", L"", L"GetJsonValue - document missing key parameter"},
      {L"[]", L"", L"GetJsonValue - document missing key parameter"},
      {L"not JSON", L"", L"GetJsonValue - document missing key parameter"},
      {L"{\"parameter\":null}", L"", L"GetJsonValue - parameter cannot be null"},
      {L"{\"parameter\":7}", L"",
       L"ParseJsonValue - parameter is invalid type expected 5 result 6"},
      {L"{\"parameter\":false}", L"",
       L"ParseJsonValue - parameter is invalid type expected 5 result 1"},
      {L"{\"parameter\":{}}", L"",
       L"ParseJsonValue - parameter is invalid type expected 5 result 3"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(c.request));
    log.Clear();
    EXPECT_EQ(LaunchQuboWithParameterRequest(Parse(c.request), caller), c.value);
    if (c.warning == nullptr) {
      EXPECT_THAT(log.Lines(), IsEmpty());
      EXPECT_EQ(problem.key, nullptr);
    } else {
      EXPECT_THAT(log.Lines(),
                  ElementsAre(kClass + c.warning, kClass + L"LaunchQuboWithParameterRequest - "
                                                           L"parsed_parameter cannot be null"));
      EXPECT_THAT(log.Callers(), testing::Each(L"client"));
      EXPECT_STREQ(problem.key, L"parameter");
    }
  }
}

TEST_F(JsonRequestTest, TheOtherReadersHaveAKeyAndWordsOfTheirOwn) {
  EXPECT_EQ(IsUwpInstalledRequest(Parse(L"{\"packageFamilyName\":\"f\"}"), caller), L"f");
  EXPECT_EQ(
      SkipAutoLaunchCriteriaRequest(Parse(L"{\"keyName\":\"\x00e4\x20ac\xd83d\xde00\"}"), caller),
      "\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80");
  EXPECT_EQ(IsUwpInstalledRequest(Parse(L"{}"), caller), L"");
  EXPECT_EQ(SkipAutoLaunchCriteriaRequest(Parse(L"{}"), caller), "");
  EXPECT_THAT(
      log.Lines(),
      ElementsAre(kClass + L"GetJsonValue - document missing key packageFamilyName",
                  kClass + L"IsUwpInstalledRequest - parsed_package_family_name cannot be null",
                  kClass + L"GetJsonValue - document missing key keyName",
                  kClass + L"SkipAutoLaunchCriteriaRequest - parsed_key_name cannot be null"));
}

TEST_F(JsonRequestTest, LaunchedIsReadFromEitherBooleanOnly) {
  static constexpr struct {
    const wchar_t* request;
    bool answer;
    bool launched;
    const wchar_t* warning;
  } kCases[] = {
      {L"{\"launched\":true}", true, true, nullptr},
      {L"{\"launched\":false}", true, false, nullptr},
      {L"{\"launched\":\"yes\"}", false, false,
       L"ParseJsonValue - launched is invalid type expected 2 result 5"},
      {L"{\"launched\":1}", false, false,
       L"ParseJsonValue - launched is invalid type expected 2 result 6"},
      {L"{\"launched\":null}", false, false, L"GetJsonValue - launched cannot be null"},
      {L"{\"Launched\":true}", false, false, L"GetJsonValue - document missing key launched"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(c.request));
    log.Clear();
    bool launched = false;
    EXPECT_EQ(ParseJsonValue(Parse(c.request), &launched, caller), c.answer);
    EXPECT_EQ(launched, c.launched);
    if (c.warning == nullptr) {
      EXPECT_THAT(log.Lines(), IsEmpty());
    } else {
      EXPECT_THAT(log.Lines(), ElementsAre(kClass + c.warning));
    }
  }
}

TEST_F(JsonRequestTest, EveryNullArgumentIsReported) {
  const wchar_t* text = nullptr;
  const RequestCaller nobody{nullptr, nullptr, "class Owner"};
  EXPECT_FALSE(ParseJsonValue(nullptr, nullptr, nullptr, nobody));
  EXPECT_FALSE(GetJsonValue(Parse(L"{}"), L"key", nullptr, nobody));
  EXPECT_TRUE(NullChecker({{&text, "first"}, {nullptr, "second"}}, nobody));
  EXPECT_FALSE(NullChecker({{&text, "first"}}, nobody));
  const std::wstring prefix = L"warning|class Owner.NullChecker - ";
  EXPECT_THAT(
      log.Lines(),
      ElementsAre(prefix + L"clientId cannot be null", prefix + L"document cannot be null",
                  prefix + L"jsonName cannot be null", prefix + L"resultValue cannot be null",
                  prefix + L"outJsonValue cannot be null", prefix + L"second cannot be null"));
}

TEST_F(JsonRequestTest, AnIdentityThatIsTooLongEndsTheProcess) {
  const std::wstring tooLong(65, L'x');
  const wchar_t* text = nullptr;
  EXPECT_DEATH(ParseJsonValue(Parse(L"{}"), L"key", &text, {tooLong.c_str()}), "");
}

}  // namespace
}  // namespace Vx::Tests
