#include "standins/app_service_exchange.h"

#include "host/app_service_proxy.h"
#include "simulator/virtual_clock.h"
#include "support/test.h"
#include "support/winrt_fakes.h"

namespace Vx::Tessel::Server::TesselCommunication {
namespace {

class AppServiceExchangeTest : public Tests::RuntimeTest {
 protected:
  static std::pair<int, std::wstring> Exchange() {
    return ExchangeWithAppService(L"Some.App_0123", L"Some.Service", L"question", 10s);
  }
};

TEST_F(AppServiceExchangeTest, SendsEachTextOfAProxyAndAnswersTheReply) {
  AppServiceProxySDK proxy(L"Some.App_0123", L"Some.Service");
  EXPECT_THAT(proxy.send_message(L"one"), Pair(0, L"understood"));
  EXPECT_THAT(proxy.send_message(L"two"), Pair(0, L"understood"));
  EXPECT_EQ(openedServices, std::vector(2, std::wstring(L"Some.App_0123!Some.Service")));
  EXPECT_THAT(messages, ElementsAre(L"one", L"two"));
  EXPECT_EQ(closed, 2);
}

TEST_F(AppServiceExchangeTest, AnswersAnEmptyTextWhenTheReplyHasNone) {
  replyIsNumber = true;
  EXPECT_THAT(Exchange(), Pair(0, L""));
  reply.reset();
  EXPECT_THAT(Exchange(), Pair(0, L""));
}

TEST_F(AppServiceExchangeTest, TellsARefusedConnectionFromARefusedMessage) {
  responseStatus = 1;
  EXPECT_THAT(Exchange(), Pair(kResponseStatusBase + 1, L""));
  messages.clear();
  connectionStatus = 1;
  EXPECT_THAT(Exchange(), Pair(1, L""));
  EXPECT_THAT(messages, IsEmpty());
  EXPECT_EQ(closed, 2);
}

TEST_F(AppServiceExchangeTest, WaitsForAnAppThatTakesItsTime) {
  opening.onRequest = true;
  replying.onRequest = true;
  std::thread app([this] { CompletePendingOnes(2); });
  EXPECT_THAT(Exchange(), Pair(0, L"understood"));
  app.join();
}

TEST_F(AppServiceExchangeTest, GivesUpAfterThirtySecondsOfTheMachinesClock) {
  Simulator::VirtualClock clock;
  const Platform::MachineScope scope([&](Platform::Machine& machine) { machine.clock = &clock; });
  replying.onRequest = true;
  AppServiceProxySDK proxy(L"Some.App_0123", L"Some.Service");
  EXPECT_THAT(proxy.send_message(L"question"), Pair(HRESULT_FROM_WIN32(ERROR_TIMEOUT), L""));
  EXPECT_EQ(clock.Elapsed(), 30s);
  EXPECT_EQ(cancelled, 1);
  EXPECT_EQ(closed, 1);
  EXPECT_TRUE(CompletePending()) << "a late reply is ignored";
}

TEST_F(AppServiceExchangeTest, AnswersTheFailureOfEachStep) {
  ExpectEachFailureTold(15, [] { return Exchange().first; });
}

TEST(AppServiceExchangeWithoutRuntimeTest, AnswersThatThereAreNoAppServices) {
  EXPECT_THAT(ExchangeWithAppService(L"Some.App_0123", L"Some.Service", L"", 1ms),
              Pair(REGDB_E_CLASSNOTREG, L""));
}

}  // namespace
}  // namespace Vx::Tessel::Server::TesselCommunication
