#include "records/record.h"

#include "host/logging.h"
#include "support/test.h"

namespace Vx::Tessel::Server::Records {

namespace {

TEST(Record, ShowsClientTextsCutAndOnOneLine) {
  const std::wstring hostile = L"a\r\nb\x1B\x202E\xE9" + std::wstring(1000, L'x');
  const std::wstring shown = L"a  b\xFFFD\xFFFD\xE9" + std::wstring(505, L'x');
  std::vector<std::wstring> texts;
  const Tests::LogSink sink([&](const Logging::LogRecord& written) {
    texts = {written.record->target, written.record->package, written.record->client};
  });
  Write({.target = hostile, .package = hostile, .client = hostile.c_str()});
  EXPECT_EQ(texts, std::vector(3, shown));
  Write({});
  EXPECT_EQ(texts, std::vector(3, std::wstring()));
}

TEST(SubscriptionHash, DependsOnTheTokensAlone) {
  const std::wstring hash = SubscriptionHash(LR"({"a":"b c","d":1.5})");
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
