#include "service/json_request.h"

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>

#include "support/log_capture.h"

namespace Vx::Tests {
namespace {

using namespace Tessel::Server::Services::Orvane;  // NOLINT(google-build-using-namespace)
using testing::ElementsAre;
using testing::ElementsAreArray;
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

TEST_F(JsonRequestTest, EveryReaderReportsWhatIsWrongInTheSameWords) {
  struct Reader {
    std::wstring name;
    const wchar_t* key;
    const wchar_t* resultName;
    std::wstring (*read)(const Json::WideDocument*, const RequestCaller&);
  };
  static const Reader kReaders[] = {
      {L"SkipAutoLaunchCriteriaRequest", L"keyName", L"parsed_key_name",
       [](const Json::WideDocument* request, const RequestCaller& on) {
         const std::string text = SkipAutoLaunchCriteriaRequest(request, on);
         return std::wstring(text.begin(), text.end());
       }},
      {L"LaunchQuboWithParameterRequest", L"parameter", L"parsed_parameter",
       &LaunchQuboWithParameterRequest},
      {L"IsUwpInstalledRequest", L"packageFamilyName", L"parsed_package_family_name",
       &IsUwpInstalledRequest},
  };
  for (const Reader& reader : kReaders) {
    SCOPED_TRACE(testing::PrintToString(reader.name));
    const std::wstring key = reader.key;
    const auto text = [](std::initializer_list<std::wstring_view> parts) {
      std::wstring whole;
      for (const std::wstring_view part : parts) whole.append(part);
      return whole;
    };
    const auto with = [&](const wchar_t* value) {
      return text({L"{\"", key, L"\":", value, L"}"});
    };
    const auto type = [&](const wchar_t* found) {
      return text(
          {kClass, L"ParseJsonValue - ", key, L" is invalid type expected 5 result ", found});
    };
    const std::wstring missing = text({kClass, L"GetJsonValue - document missing key ", key});
    const struct {
      std::wstring request;
      std::wstring value;
      std::wstring warning;
    } kCases[] = {
        {with(L"\"text\""), L"text", L""},
        {with(L"\"\""), L"", L""},
        {text({L"{\"", key, L"\":\"first\",\"", key, L"\":\"second\"}"}), L"first", L""},
        {with(L"\"before\\u0000after\""), L"before", L""},
        {L"{}", L"", missing},
        {L"[]", L"", missing},
        {L"not JSON", L"", missing},
        {text({L"{\"", key, L"\\u0000\":\"text\"}"}), L"", missing},
        {with(L"null"), L"", text({kClass, L"GetJsonValue - ", key, L" cannot be null"})},
        {with(L"7"), L"", type(L"6")},
        {with(L"false"), L"", type(L"1")},
        {with(L"{}"), L"", type(L"3")},
        {with(L"[]"), L"", type(L"4")},
    };
    for (const auto& c : kCases) {
      SCOPED_TRACE(testing::PrintToString(c.request));
      log.Clear();
      problem = {};
      EXPECT_EQ(reader.read(Parse(c.request.c_str()), caller), c.value);
      std::vector<std::wstring> lines;
      if (!c.warning.empty()) {
        lines = {c.warning,
                 text({kClass, reader.name, L" - ", reader.resultName, L" cannot be null"})};
      }
      EXPECT_THAT(log.Lines(), ElementsAreArray(lines));
      EXPECT_THAT(log.Callers(), testing::Each(L"client"));
      EXPECT_EQ(problem.key == nullptr ? std::wstring() : problem.key,
                c.warning.empty() ? L"" : key);
    }
  }
}

TEST_F(JsonRequestTest, AKeyNameBecomesUtf8) {
  EXPECT_EQ(
      SkipAutoLaunchCriteriaRequest(Parse(L"{\"keyName\":\"\x00e4\x20ac\xd83d\xde00\"}"), caller),
      "\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80");
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
