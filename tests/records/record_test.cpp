#include "records/record.h"

#include "host/logging.h"
#include "support/test.h"

namespace Vx::Tessel::Server::Records {

namespace {

TEST(Record, ShowsClientTextsCutAndOnOneLine) {
  const std::wstring hostile = L"a\r\nb\x1B\x202E\xE9" + std::wstring(1000, L'x');
  const std::wstring shown = L"a  b\xFFFD\xFFFD\xE9" + std::wstring(505, L'x');
  std::vector<std::wstring> texts;
  const auto sink = Logging::LogManager::AddSink([&](const Logging::LogRecord& written) {
    texts = {written.record->target, written.record->package, written.record->client};
  });
  Write({.target = hostile, .package = hostile, .client = hostile.c_str()});
  EXPECT_EQ(texts, std::vector(3, shown));
  Write({});
  EXPECT_EQ(texts, std::vector(3, std::wstring()));
  Logging::LogManager::RemoveSink(sink);
}

}  // namespace

}  // namespace Vx::Tessel::Server::Records
