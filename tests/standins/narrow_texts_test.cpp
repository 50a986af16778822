#include "standins/narrow_texts.h"

#include <string>

#include <gmock/gmock.h>

#include "host/logging.h"
#include "support/log_capture.h"

namespace Vx::Tessel::Server::Logging {
namespace {

constexpr char kName[] = "J\xC3\xBCrgen";
constexpr wchar_t kWide[] = L"J\u00FCrgen";

TEST(NarrowTextsTest, AreReadAsUtf8WhereverTheyStandInALine) {
  const TraceLogger& logger = *LogManager::SetProvider("Vx-Test-Provider");
  const std::string longName = std::string(100'000, 'x') + kName;
  const Tests::LogCapture log;
  logger.LogInfo(L"%S", kName);
  logger.LogInfo(L"%d %S %5.1f %s %8S|%-8S| %llu%% %S", -1, "ascii", 2.5, kWide, kName, kName,
                 ~0ULL, "\xF0\x9F\x98\x80 \xE4\xB8\xAD");
  logger.LogInfo(L"%*d %S %*S", 3, 7, kName, 8, kName);
  logger.LogInfo(L"%S", "broken \xC3 and \xFF");
  logger.LogInfo(L"%S %S %S %S %S %S %S %S %S", kName, "", "", "", "", "", "", kName, "ninth");
  logger.LogInfo(L"%S, error %d", longName.c_str(), 5);
  logger.LogInfo(L"100%% %S%", kName);
  const auto lines = log.Lines();
  ASSERT_EQ(lines.size(), 7U);
  const std::wstring name = kWide;
  EXPECT_EQ(lines[0], L"info|" + name);
  EXPECT_EQ(lines[1], L"info|-1 ascii   2.5 " + name + L"   " + name + L"|" + name +
                          L"  | 18446744073709551615% \xD83D\xDE00 \x4E2D");
  EXPECT_EQ(lines[2], L"info|  7 " + name + L"   " + name);
  EXPECT_EQ(lines[3], L"info|broken \xFFFD and \xFFFD");
  EXPECT_EQ(lines[4], L"info|" + name + L"       " + name + L" ninth");
  EXPECT_THAT(lines[5], testing::EndsWith(L"x, error 5"));
  EXPECT_THAT(lines[6], testing::StartsWith(L"info|100% " + name));
}

}  // namespace
}  // namespace Vx::Tessel::Server::Logging
