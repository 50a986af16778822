#include "host/app_service_exchange.h"

#include <chrono>
#include <string>
#include <thread>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "host/app_service_proxy.h"
#include "support/winrt_fakes.h"

namespace Vx::Tessel::Server::TesselCommunication {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using namespace std::chrono_literals;
using Tests::Completion;
using Tests::FakeRuntime;

constexpr int kAccessDenied = static_cast<int>(0x80070005);
constexpr int kTimedOut = static_cast<int>(0x800705B4);
constexpr int kClassNotRegistered = static_cast<int>(0x80040154);

// Every test ends with nothing of the runtime left over.
class AppServiceExchangeTest : public ::testing::Test {
 protected:
  void TearDown() override {
    runtime.DropPending();
    EXPECT_EQ(FakeRuntime::Count(), FakeRuntime::Alive());
  }

  static std::pair<int, std::wstring> Exchange(std::chrono::milliseconds limit = 10s) {
    return ExchangeWithAppService(L"Some.App_0123", L"Some.Service", L"{ \"question\": 1 }", limit);
  }

  FakeRuntime runtime;
};

TEST_F(AppServiceExchangeTest, SendsTheTextAndAnswersTheReply) {
  EXPECT_THAT(Exchange(), Pair(0, L"understood"));
  EXPECT_THAT(runtime.openedServices, ElementsAre(L"Some.App_0123!Some.Service"));
  EXPECT_THAT(runtime.messages, ElementsAre(L"{ \"question\": 1 }"));
  EXPECT_EQ(runtime.closed, 1);
}

TEST_F(AppServiceExchangeTest, IsWhatTheProxyDoesForEachMessage) {
  AppServiceProxySDK proxy(L"Some.App_0123", L"Other.Service");
  EXPECT_THAT(proxy.send_message(L"one"), Pair(0, L"understood"));
  EXPECT_THAT(proxy.send_message(L"two"), Pair(0, L"understood"));
  EXPECT_THAT(runtime.messages, ElementsAre(L"one", L"two"));
  EXPECT_EQ(runtime.closed, 2);
}

TEST_F(AppServiceExchangeTest, AnswersAnEmptyTextWhenTheReplyHasNone) {
  runtime.app.reply.reset();
  EXPECT_THAT(Exchange(), Pair(0, L""));
  runtime.app.reply = L"17";
  runtime.app.replyIsNumber = true;
  EXPECT_THAT(Exchange(), Pair(0, L""));
}

TEST_F(AppServiceExchangeTest, TellsARefusedConnectionFromARefusedMessage) {
  runtime.app.connectionStatus = 1;
  EXPECT_THAT(Exchange(), Pair(1, L""));
  EXPECT_THAT(runtime.messages, IsEmpty());
  runtime.app.connectionStatus = 0;
  runtime.app.responseStatus = 1;
  EXPECT_THAT(Exchange(), Pair(kResponseStatusBase + 1, L""));
  EXPECT_EQ(runtime.closed, 2);
}

TEST_F(AppServiceExchangeTest, AnswersTheErrorOfAnOperationThatFailed) {
  static constexpr struct {
    Abi::AsyncStatus status;
    HRESULT error;
    int answer;
  } kCases[] = {
      {Abi::AsyncStatus::Error, kAccessDenied, kAccessDenied},
      {Abi::AsyncStatus::Error, S_OK, static_cast<int>(0x80004005)},
      {Abi::AsyncStatus::Canceled, S_OK, static_cast<int>(0x80004005)},
  };
  for (const auto& c : kCases) {
    runtime.app.openingStatus = c.status;
    runtime.app.openingError = c.error;
    EXPECT_THAT(Exchange(), Pair(c.answer, L""));
  }
}

TEST_F(AppServiceExchangeTest, WaitsForAnAppThatTakesItsTime) {
  runtime.app.opening = Completion::OnRequest;
  runtime.app.replying = Completion::OnRequest;
  std::thread app([this] {
    for (int ended = 0; ended < 2;) {
      if (runtime.CompletePending()) {
        ++ended;
      } else {
        std::this_thread::yield();
      }
    }
  });
  EXPECT_THAT(Exchange(), Pair(0, L"understood"));
  app.join();
}

TEST_F(AppServiceExchangeTest, GivesUpOnAnAppThatNeverAnswers) {
  runtime.app.replying = Completion::OnRequest;
  EXPECT_THAT(Exchange(1ms), Pair(kTimedOut, L""));
  EXPECT_EQ(runtime.cancelled, 1);
  EXPECT_EQ(runtime.closed, 1);
  // The answer that comes after all finds nobody, and does no harm.
  EXPECT_TRUE(runtime.CompletePending());
}

TEST_F(AppServiceExchangeTest, AnswersTheFailureOfEachStep) {
  for (int call = 1; call < 100; ++call) {
    SCOPED_TRACE(call);
    runtime.FailCall(call);
    const int status = Exchange().first;
    EXPECT_EQ(FakeRuntime::Count(), FakeRuntime::Alive());
    if (!runtime.HasFailed()) {
      EXPECT_EQ(status, 0);
      EXPECT_GT(call, 15);
      return;
    }
    EXPECT_EQ(status, kAccessDenied);
  }
  FAIL();
}

TEST(AppServiceExchangeWithoutRuntimeTest, AnswersThatThereAreNoAppServices) {
  EXPECT_THAT(ExchangeWithAppService(L"Some.App_0123", L"Some.Service", L"", 1ms),
              Pair(kClassNotRegistered, L""));
}

}  // namespace
}  // namespace Vx::Tessel::Server::TesselCommunication
