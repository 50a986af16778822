#include "service/dispatch.h"

#include <string>

#include <gmock/gmock.h>

#include "platform/system_services.h"
#include "service/json_request.h"
#include "service/simulated_service.h"
#include "storage/cap_data_store.h"

namespace Vx::Tests {
namespace {

using Tessel::Server::Storage::BsonElement;
using Tessel::Server::Storage::CapDataStore;
using testing::Contains;
using testing::HasSubstr;

constexpr std::uint32_t kUnsupported = 0x20000001;
constexpr std::uint32_t kFailed = 0x20000002;
constexpr std::uint32_t kInvalid = 0x20000003;
constexpr std::uint32_t kNoApiSet = 0x2000000A;

class DispatchTest : public SimulatedServiceTest {
 protected:
  Reply Execute(std::uint32_t id, const std::wstring& request) {
    return host.Execute(id, request.c_str());
  }
};

TEST_F(DispatchTest, IdsThatNeedSessionsStopBeforeAnythingElseIsLookedAt) {
  constexpr std::uint32_t kNeedsSessions = 0x22D08;  // a bit an id
  machine.system.RemoveApiSet(Platform::kSessionApiSet);
  for (std::uint32_t id = 0; id < 25; ++id) {
    SCOPED_TRACE(id);
    // Everything else is wrong with these calls, so that the order of the checks shows.
    const Reply reply = host.Execute(id, nullptr, nullptr);
    EXPECT_EQ(reply.result, ((kNeedsSessions >> id) & 1U) != 0 ? kNoApiSet : kFailed);
    EXPECT_TRUE(reply.untouched);
  }
}

TEST_F(DispatchTest, ANullContextRequestOrResponseIsRefusedBeforeParsing) {
  for (std::uint32_t id = 0; id < 25; ++id) {
    SCOPED_TRACE(id);
    EXPECT_TRUE(host.Execute(id, L"{", nullptr).untouched);
    host.log.Clear();
    const Reply noRequest = host.Execute(id, nullptr);
    EXPECT_EQ(noRequest.result, kFailed);
    EXPECT_TRUE(noRequest.untouched);
    EXPECT_EQ(host.service->ExecuteCommand(host.context, id, nullptr, nullptr, nullptr), kFailed);
    const std::wstring prefix =
        L"warning|class Vx::Tessel::Server::Services::Orvane::OrvaneService.NullChecker - ";
    EXPECT_THAT(host.log.Lines(), Contains(prefix + L"message cannot be null").Times(2));
    EXPECT_THAT(host.log.Lines(), Contains(prefix + L"outString cannot be null").Times(1));
  }
}

TEST_F(DispatchTest, OnlyCommandsWithoutArgumentsAcceptWhatIsNoJson) {
  constexpr std::uint32_t kIgnoresBadJson = 0x1D01;  // a bit an id
  static const std::wstring kTexts[] = {L"", L"{", L"{\"a\":\"\\uDC00\"}",
                                        std::wstring(100000, L'['),
                                        L"\"" + std::wstring(std::size_t{1} << 20, L'x') + L"\""};
  for (std::uint32_t id = 0; id < 25; ++id) {
    const bool ignores = ((kIgnoresBadJson >> id) & 1U) != 0;
    for (const std::wstring& text : kTexts) {
      SCOPED_TRACE(testing::Message() << "id " << id << ", " << text.substr(0, 20).c_str());
      const Reply reply = Execute(id, text);
      EXPECT_EQ(reply.result == kInvalid, !ignores);
      EXPECT_EQ(reply.response.has_value(), ignores);
      EXPECT_FALSE(reply.untouched);
    }
  }
}

TEST_F(DispatchTest, AValidRequestThatLooksOddIsAnswered) {
  static const std::wstring kTexts[] = {L"null", L"[]", L" {} ",
                                        L"{\"a\":\"\\uD83D\\uDE00\\u0000\",\"a\":1e-400}",
                                        std::wstring(128, L'[') + std::wstring(128, L']')};
  for (const std::wstring& text : kTexts) {
    SCOPED_TRACE(testing::PrintToString(text.substr(0, 30)));
    EXPECT_EQ(Execute(22, text).response, L"{\"result\":{\"getVersion\":\"1.73.4044.0\"}}");
    EXPECT_EQ(Execute(13, text).result, kFailed);
    const Reply unknown = Execute(23, text);
    EXPECT_EQ(unknown.result, kUnsupported);
    EXPECT_EQ(unknown.response, L"{}");
  }
}

TEST_F(DispatchTest, EachRefusalSaysWhichIdAndKeyAndWhatWasWrong) {
  static constexpr struct {
    std::uint32_t id;
    const wchar_t* request;
    const wchar_t* line;
  } kCases[] = {
      {13, L"{}", L"function id 13: launched is missing (result 0x20000002)"},
      {13, L"{\"launched\":null}", L"function id 13: launched is null (result 0x20000002)"},
      {13, L"{\"launched\":1}", L"function id 13: launched is not a boolean (result 0x20000002)"},
      {9, L"{", L"function id 9: message is not valid JSON (result 0x20000003)"},
      {9, nullptr, L"function id 9: message is null (result 0x20000002)"},
      {1, L"{}", L"Unsupported Function call 1"},
      {0xFFFFFFFF, L"{}", L"Unsupported Function call -1"},
      {99, L"{}", L"function id 99: functionId names no command (result 0x20000001)"},
      {6, L"{}", L"function id 6: packageFamilyName is missing (result 0x00000000)"},
      {9, L"{}",
       L"function id 9: request will never run: powerEventType is missing (result 0x00000000)"},
      {14, L"{\"zephraEventType\":\"2\"}",
       L"function id 14: request will never run: zephraEventType is a value of another type "
       L"(result 0x00000000)"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(c.line));
    host.log.Clear();
    host.Execute(c.id, c.request);
    const std::wstring line =
        L"error|class Vx::Tessel::Server::Services::Orvane::OrvaneService.ExecuteCommand - ";
    EXPECT_THAT(host.log.Lines(), Contains(line + c.line).Times(1));
    EXPECT_EQ(host.log.Callers().front(), L"client");
    EXPECT_EQ(host.log.Callers().back(), L"client");
  }
}

TEST_F(DispatchTest, AReaderOfARequestSaysWhatItMissed) {
  static constexpr struct {
    std::uint32_t id;
    const wchar_t* request;
    const wchar_t* warning;
  } kCases[] = {
      {17, L"{\"parameter\\u0000\":\"\"}", L"GetJsonValue - document missing key parameter"},
      {17, L"[]", L"GetJsonValue - document missing key parameter"},
      {17, L"{\"parameter\":null}", L"GetJsonValue - parameter cannot be null"},
      {17, L"{\"parameter\":7}", L"ParseJsonValue - parameter is invalid type expected 5 result 6"},
      {17, L"{}", L"LaunchQuboWithParameterRequest - parsed_parameter cannot be null"},
      {6, L"{}", L"IsUwpInstalledRequest - parsed_package_family_name cannot be null"},
      {5, L"{}", L"SkipAutoLaunchCriteriaRequest - parsed_key_name cannot be null"},
      {13, L"{\"Launched\":true}", L"GetJsonValue - document missing key launched"},
      {13, L"{\"launched\":\"\"}",
       L"ParseJsonValue - launched is invalid type expected 2 result 5"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(c.warning));
    host.log.Clear();
    Execute(c.id, c.request);
    const std::wstring line = L"warning|class Vx::Tessel::Server::Services::Orvane::OrvaneService.";
    EXPECT_THAT(host.log.Lines(), Contains(line + c.warning).Times(1));
    EXPECT_EQ(host.log.Callers().front(), L"client");
  }
}

TEST_F(DispatchTest, AnIdentityThatIsTooLongEndsTheProcess) {
  namespace Orvane = Tessel::Server::Services::Orvane;
  const std::wstring tooLong(65, L'x');
  Tessel::Server::Services::ClientContext* made = nullptr;
  EXPECT_DEATH(host.service->CreateClientContext(tooLong.c_str(), &made), "");
  const Json::WideDocument document;
  bool launched = false;
  EXPECT_DEATH(Orvane::ParseJsonValue(&document, &launched, {tooLong.c_str()}), "");
}

TEST_F(DispatchTest, SubscriptionsAreListedUntilTheyAreTakenBackByTheListedText) {
  const std::wstring power = L"{\"powerEventType\":7,\"x\":\"\\u00e4\"}";
  EXPECT_EQ(Execute(9, power).response, L"{}");
  EXPECT_EQ(Execute(14, L"{\"zephraEventType\":1}").response, L"{}");
  EXPECT_EQ(Execute(14, L"{\"zephraEventType\":2}").response, L"{}");
  EXPECT_EQ(Execute(20, L"{}").response,
            L"{\"result\":{\"power_events\":[{\"powerEventType\":7,\"x\":\"\x00e4\"}],"
            L"\"zephra_events\":[{\"zephraEventType\":1},{\"zephraEventType\":2}]}}");
  EXPECT_EQ(Execute(19, L"{\"powerEventType\":7,\"x\":\"\x00e4\"}").result, 0U);
  EXPECT_EQ(Execute(15, L"{\"zephraEventType\":1}").result, 0U);
  EXPECT_EQ(Execute(20, L"{}").response,
            L"{\"result\":{\"power_events\":[],\"zephra_events\":[{\"zephraEventType\":2}]}}");
}

TEST_F(DispatchTest, SubscriptionsThatDoNotFitIntoAResponseAreAFailureWithoutAnAnswer) {
  constexpr std::wstring_view kFrame =
      L"{\"result\":{\"power_events\":[{\"x\":\"\"}],\"zephra_events\":[]}}";
  const auto request = [](std::size_t length) {
    return L"{\"x\":\"" + std::wstring(length, L'x') + L"\"}";
  };
  const std::wstring fits = request(65536 - kFrame.size());
  ASSERT_EQ(Execute(9, fits).result, 0U);
  const Reply reply = Execute(20, L"{}");
  EXPECT_EQ(reply.result, 0U);
  ASSERT_TRUE(reply.response.has_value());
  EXPECT_EQ(reply.response->size(), 65536U);

  ASSERT_EQ(Execute(19, fits).result, 0U);
  ASSERT_EQ(Execute(9, request(65536 - kFrame.size() + 1)).result, 0U);
  host.log.Clear();
  const Reply tooLong = Execute(20, L"{}");
  EXPECT_EQ(tooLong.result, kFailed);
  EXPECT_TRUE(tooLong.response == L"{}");
  EXPECT_THAT(host.log.Lines(), Contains(HasSubstr(L"GetSubscriptions threw exception the stored "
                                                   L"requests do not fit into a response")));
  EXPECT_THAT(host.log.Lines(),
              Contains(HasSubstr(L"function id 20: request failed: the stored ")));
}

TEST_F(DispatchTest, TheStoreIsSharedWithOtherServices) {
  EXPECT_EQ(Execute(21, L"{}").response, L"{\"result\":{\"sleepState\":0}}");
  CapDataStore().persist("sleep_state", BsonElement::Int32(-4));
  EXPECT_EQ(Execute(21, L"{}").response, L"{\"result\":{\"sleepState\":-4}}");
  CapDataStore().persist("sleep_state", "4");
  EXPECT_EQ(Execute(21, L"{}").response, L"{\"result\":{\"sleepState\":0}}");
  EXPECT_EQ(Execute(16, L"{}").response, L"{}");
  EXPECT_EQ(CapDataStore().readText("orvane_service_policy_changed_event"), L"yes");
}

}  // namespace
}  // namespace Vx::Tests
