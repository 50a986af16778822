#include "service/dispatch.h"

#include <string>

#include <gmock/gmock.h>

#include "platform/system_services.h"
#include "service/json_request.h"
#include "service/simulated_service.h"

namespace Vx::Tests {
namespace {

using testing::Contains;
using testing::HasSubstr;

constexpr std::uint32_t kFailed = 0x20000002;
constexpr std::uint32_t kInvalid = 0x20000003;
constexpr std::uint32_t kNoApiSet = 0x2000000A;

class DispatchTest : public SimulatedServiceTest {
 protected:
  Reply Execute(std::uint32_t id, const std::wstring& request) {
    return host.Execute(id, request.c_str());
  }
};

// Which ids those are is asserted below the table.
TEST_F(DispatchTest, IdsThatNeedSessionsStopBeforeAnythingElseIsLookedAt) {
  machine.system.RemoveApiSet(Platform::kSessionApiSet);
  for (const auto& [id, result] : {std::pair(17U, kNoApiSet), std::pair(22U, kFailed)}) {
    // These calls fail every other check too, so that the order of the checks shows.
    const Reply reply = host.Execute(id, nullptr, nullptr);
    EXPECT_EQ(reply.result, result) << id;
    EXPECT_TRUE(reply.untouched);
  }
}

TEST_F(DispatchTest, ANullContextRequestOrResponseIsRefusedBeforeParsing) {
  for (const std::uint32_t id : {0U, 9U, 99U}) {
    SCOPED_TRACE(id);
    EXPECT_TRUE(host.Execute(id, L"{", nullptr).untouched);
    log.Clear();
    const Reply noRequest = host.Execute(id, nullptr);
    EXPECT_EQ(noRequest.result, kFailed);
    EXPECT_TRUE(noRequest.untouched);
    EXPECT_EQ(host.service->ExecuteCommand(host.context, id, nullptr, nullptr, nullptr), kFailed);
    const std::wstring prefix =
        L"warning|class Vx::Tessel::Server::Services::Orvane::OrvaneService.NullChecker - ";
    EXPECT_THAT(log.Lines(), Contains(prefix + L"message cannot be null").Times(2));
    EXPECT_THAT(log.Lines(), Contains(prefix + L"outString cannot be null").Times(1));
    EXPECT_THAT(log.Lines(), Contains(HasSubstr(L": message is null (result 0x20000002)")));
  }
}

TEST_F(DispatchTest, OnlyCommandsWithoutArgumentsAcceptWhatIsNoJson) {
  const auto ofLength = [](std::size_t length) {
    return L"\"" + std::wstring(length - 2, L'x') + L"\"";
  };
  EXPECT_EQ(Execute(22, ofLength(1'048'576)).result, 0U);
  const std::wstring texts[] = {L"", L"{", L"{\"a\":\"\\uDC00\"}", std::wstring(100000, L'['),
                                ofLength(1'048'577)};
  for (const auto& [id, ignores] : {std::pair(12U, true), std::pair(22U, false)}) {
    for (const std::wstring& text : texts) {
      SCOPED_TRACE(testing::Message() << "id " << id << ", " << text.substr(0, 20).c_str());
      const Reply reply = Execute(id, text);
      EXPECT_EQ(reply.result == kInvalid, !ignores);
      EXPECT_EQ(reply.response.has_value(), ignores);
      EXPECT_FALSE(reply.untouched);
    }
  }
}

TEST_F(DispatchTest, AnIdentityThatIsTooLongEndsTheProcess) {
  namespace Orvane = Tessel::Server::Services::Orvane;
  const std::wstring tooLong(65, L'x');
  Tessel::Server::Services::ClientContext* made = nullptr;
  const testing::ExitedWithCode failedFast(static_cast<int>(0xC0000602));
  EXPECT_EXIT(host.service->CreateClientContext(tooLong.c_str(), &made), failedFast, "");
  const Json::WideDocument document;
  bool launched = false;
  EXPECT_EXIT(Orvane::ParseJsonValue(&document, &launched, {tooLong.c_str()}), failedFast, "");
}

}  // namespace
}  // namespace Vx::Tests
