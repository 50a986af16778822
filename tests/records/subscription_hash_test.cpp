#include "records/subscription_hash.h"

#include "support/test.h"

namespace Vx::Tessel::Server::Records {

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

}  // namespace

}  // namespace Vx::Tessel::Server::Records
