#include "events/subscription_hash.h"

#include <gmock/gmock.h>

#include <string>

#include "events/power_events.h"
#include "support/machine_test.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kText[] = LR"({"a":"b c","d":1.5})";

TEST(SubscriptionHash, DependsOnTheTokensAlone) {
  const std::wstring hash = SubscriptionHash(kText);
  EXPECT_EQ(hash, SubscriptionHash(LR"( { "a" : "b c", "d": 1.5 } )"));
  EXPECT_EQ(hash.size(), 8U);
  EXPECT_EQ(hash.find_first_not_of(L"0123456789abcdef"), std::wstring::npos);
  for (const wchar_t* other : {LR"({"a":"bc","d":1.5})", LR"({"d":1.5,"a":"b c"})",
                               LR"({"a":"b c","d":1.6})", L"{", L"{ "}) {
    EXPECT_NE(SubscriptionHash(other), hash);
  }
  EXPECT_NE(SubscriptionHash(L"{"), SubscriptionHash(L"{ "));
}

using ListChangeTest = Tests::StoreTest;

TEST_F(ListChangeTest, LeavesALineThatNamesTheOutcome) {
  const auto lastLine = [&](const wchar_t* rest) {
    EXPECT_EQ(log.Lines().back(),
              L"info|OrvaneService - subscription " + SubscriptionHash(kText) + rest);
  };
  RegisterSubscription(kPowerEvents, kText);
  lastLine(L": accepted (function id 9)");
  RegisterSubscription(kPowerEvents, kText);
  lastLine(L": refused (function id 9)");
  UnregisterSubscription(kPowerEvents, kText);
  lastLine(L": taken back (function id 19)");
  UnregisterSubscription(kPowerEvents, kText);
  lastLine(L": refused (function id 19)");
}

TEST_F(ListChangeTest, IsRefusedWhereNoStoreKeepsIt) {
  store.Block();
  RegisterSubscription(kPowerEvents, kText);
  EXPECT_THAT(log.Lines().back(), testing::EndsWith(L": refused (function id 9)"));
}

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane
