#include "service/dispatch.h"

#include "platform/system_services.h"
#include "service/json_request.h"
#include "service/simulated_service.h"
#include "support/test.h"

namespace Vx::Tests {
namespace {

constexpr std::uint32_t kFailed = 0x20000002;
constexpr std::uint32_t kNoApiSet = 0x2000000A;

using DispatchTest = SimulatedServiceTest;

// Static assertions below the command table check which IDs those are.
TEST_F(DispatchTest, IdsThatNeedSessionsStopBeforeAnythingElseIsLookedAt) {
  machine.system.RemoveApiSet(Platform::kSessionApiSet);
  for (const auto& [id, result] : {std::pair(17U, kNoApiSet), std::pair(22U, kFailed)}) {
    const Reply reply = host.Execute(id, nullptr, nullptr);  // fails every other check too
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

// vxhost/scenarios/every_command.json covers which commands accept text that is not JSON.
TEST_F(DispatchTest, ARequestOfMoreThanAMillionCharactersIsNotRead) {
  const std::wstring longest = L"\"" + std::wstring(1'048'574, L'x') + L"\"";
  EXPECT_EQ(host.Execute(22, longest.c_str()).result, 0U);
  EXPECT_EQ(host.Execute(22, (longest + L" ").c_str()).result, 0x20000003U);
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
