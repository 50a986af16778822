#include "host/logging.h"

#include <gmock/gmock.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <windows.h>

#include "platform/unique_handle.h"
#include "support/log_capture.h"

namespace Vx::Tessel::Server::Logging {
namespace {

using testing::Each;
using testing::ElementsAre;

constexpr DWORD kLongestWait = 20'000;  // milliseconds

const TraceLogger& Logger() {
  return *LogManager::SetProvider("Vx-Test-Provider");
}

// Keeps a sink registered.
class SinkScope {
 public:
  explicit SinkScope(LogManager::Sink sink) : id(LogManager::AddSink(std::move(sink))) {}
  SinkScope(const SinkScope&) = delete;
  SinkScope& operator=(const SinkScope&) = delete;
  ~SinkScope() { LogManager::RemoveSink(id); }

 private:
  LogManager::SinkId id;
};

// Runs `body` with the numbers 0 to 3 on four threads at once.
void RunAtOnce(const std::function<void(std::size_t)>& body) {
  std::vector<std::jthread> threads;
  for (std::size_t number = 0; number < 4; ++number) {
    threads.emplace_back([&body, number] { body(number); });
  }
}

TEST(LoggingTest, FormatsWithTheHostsMeaningOfTheLettersAndCutsALineAtItsBound) {
  const wchar_t* noWide = nullptr;
  const char* noNarrow = nullptr;
  const std::wstring longest(4096, L'x');
  const Tests::LogCapture capture;
  Logger().LogInfo(L"%s %S %ls %hs", L"wide", "narrow", L"wide", "narrow");
  Logger().LogInfo(L"%d %x %llu 100%%", -1, 255, ~0ULL);
  Logger().LogInfo(L"%s %S", noWide, noNarrow);
  Logger().LogInfo(L"%s", L"\x4e2d\x6587 \xd83d\xde00");
  Logger().LogInfo(L"");
  Logger().LogInfo(L"%s", longest.c_str());
  Logger().LogInfo(L"%s", (longest + std::wstring(100'000, L'y')).c_str());
  EXPECT_THAT(capture.Lines(),
              ElementsAre(L"info|wide narrow wide narrow", L"info|-1 ff 18446744073709551615 100%",
                          L"info|(null) (null)", L"info|\x4e2d\x6587 \xd83d\xde00", L"info|",
                          L"info|" + longest, L"info|" + longest));
}

constexpr char kName[] = "J\xC3\xBCrgen";
constexpr wchar_t kWide[] = L"J\u00FCrgen";

TEST(NarrowTextsTest, AreReadAsUtf8WhereverTheyStandInALine) {
  const std::string longName = std::string(100'000, 'x') + kName;
  const Tests::LogCapture log;
  Logger().LogInfo(L"%S", kName);
  Logger().LogInfo(L"%d %S %5.1f %s %8S|%-8S| %llu%% %S", -1, "ascii", 2.5, kWide, kName, kName,
                   ~0ULL, "\xF0\x9F\x98\x80 \xE4\xB8\xAD");
  Logger().LogInfo(L"%*d %S %*S", 3, 7, kName, 8, kName);
  Logger().LogInfo(L"%S", "broken \xC3 and \xFF");
  Logger().LogInfo(L"%S %S %S %S %S %S %S %S %S", kName, "", "", "", "", "", "", kName, "ninth");
  Logger().LogInfo(L"%S, error %d", longName.c_str(), 5);
  Logger().LogInfo(L"100%% %S%", kName);
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

TEST(LoggingTest, KeepsTheEndOfALineWhoseTextsAreCut) {
  const std::wstring wide(100'000, L'w');
  const std::string narrow(100'000, 'n');
  const Tests::LogCapture capture;
  Logger().LogInfo(L"%d. [%s] refused, error %d", 7, wide.c_str(), 5);
  Logger().LogInfo(L"%S -> %.3s, %5d%% of %s", narrow.c_str(), wide.c_str(), 10, wide.c_str());
  EXPECT_THAT(capture.Lines(),
              ElementsAre(L"info|7. [" + std::wstring(4096 - 22, L'w') + L"] refused, error 5",
                          L"info|" + std::wstring(2038, L'n') + L" -> www,    10% of " +
                              std::wstring(2038, L'w')));
}

TEST(LoggingTest, ShowsNoControlCharacterOfAClient) {
  const wchar_t* const hostile =
      L"a\r\nERROR b\x1B]0;c\x07\x08\x7F\x85\x9B"
      L"d\t\x2028\x2029\x202E\x2066 \xE9\x4E2D";
  const wchar_t* const shown =
      L"a  ERROR b\xFFFD]0;c\xFFFD\xFFFD\xFFFD\xFFFD\xFFFD"
      L"d \xFFFD\xFFFD\xFFFD\xFFFD \xE9\x4E2D";
  std::vector<std::wstring> seen;
  const SinkScope scope([&](const LogRecord& record) {
    seen.emplace_back(record.message);
    seen.emplace_back(record.caller);
  });
  Logger().For(hostile).LogError(L"%s.", hostile);
  Logger().For(std::wstring(1000, L'i').c_str()).LogError(L"");
  EXPECT_THAT(seen, ElementsAre(std::wstring(shown) + L".", shown, L"", std::wstring(256, L'i')));
}

TEST(LoggingTest, CarriesLevelProviderAndCaller) {
  std::vector<std::wstring> seen;
  const SinkScope scope([&](const LogRecord& record) {
    seen.push_back(std::to_wstring(static_cast<int>(record.level)) + L"|" +
                   std::wstring(record.provider) + L"|" + std::wstring(record.caller));
  });
  Logger().LogInfo(L"x");
  Logger().For(L"client").LogError(L"x");
  Logger().For(nullptr).LogWarning(L"x");
  EXPECT_THAT(seen, ElementsAre(L"0|Vx-Test-Provider|", L"2|Vx-Test-Provider|client",
                                L"1|Vx-Test-Provider|"));
}

TEST(LoggingTest, GivesOneLoggerAProvider) {
  std::vector<std::vector<TraceLogger*>> loggers(4);
  RunAtOnce([&](std::size_t thread) {
    for (int i = 0; i < 1000; ++i) {
      loggers[thread].push_back(LogManager::SetProvider(("Vx-" + std::to_string(i)).c_str()));
    }
  });
  EXPECT_THAT(loggers, Each(loggers[0]));
  EXPECT_NE(loggers[0][0], loggers[0][1]);
}

TEST(LoggingTest, LeavesTheLastErrorAlone) {
  const SinkScope scope([](const LogRecord&) { SetLastError(1); });
  SetLastError(0x1234);
  Logger().LogInfo(L"x");
  EXPECT_EQ(GetLastError(), 0x1234U);
}

TEST(LoggingTest, DoesNotTouchItsArgumentsWhileNobodyListens) {
  if (IsDebuggerPresent() != FALSE) GTEST_SKIP() << "a debugger listens";
  EXPECT_EXIT(
      {
        // NOLINTNEXTLINE(performance-no-int-to-ptr): an address that must not be read
        Logger().LogInfo(L"%s", reinterpret_cast<const wchar_t*>(std::uintptr_t{1}));
        std::_Exit(0);
      },
      testing::ExitedWithCode(0), "");
}

TEST(LoggingTest, DeliversEveryLineWholeAndOneAtATime) {
  constexpr int kLines = 300;
  std::atomic<int> inside{0};
  int faults = 0;
  std::vector<int> next(4, 0);
  {
    const SinkScope scope([&](const LogRecord& record) {
      if (inside.fetch_add(1) != 0) ++faults;
      int& line = next.at(static_cast<std::size_t>(record.message.at(7) - L'0'));
      const std::wstring expected =
          std::wstring(record.message.substr(0, 8)) + L" line " + std::to_wstring(line++);
      if (record.message != expected) ++faults;
      inside.fetch_sub(1);
    });
    RunAtOnce([](std::size_t thread) {
      for (int i = 0; i < kLines; ++i) Logger().LogInfo(L"thread %zu line %d", thread, i);
    });
  }
  EXPECT_EQ(faults, 0);
  EXPECT_THAT(next, Each(kLines));
}

TEST(LoggingTest, RemovesASinkOnlyWhenNoCallIntoItIsLeft) {
  const Platform::UniqueHandle entered(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  const Platform::UniqueHandle leave(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  std::atomic<bool> left{false};
  const auto id = LogManager::AddSink([&](const LogRecord&) {
    SetEvent(entered.get());
    WaitForSingleObject(leave.get(), kLongestWait);
    left = true;
  });
  const std::jthread logging([] { Logger().LogInfo(L"x"); });
  ASSERT_EQ(WaitForSingleObject(entered.get(), kLongestWait), WAIT_OBJECT_0);
  std::atomic<bool> removed{false};
  const std::jthread removing([&] {
    LogManager::RemoveSink(id);
    EXPECT_TRUE(left);
    removed = true;
  });
  // Long enough for a removal that does not wait. A slow machine can only hide the fault.
  Sleep(50);
  EXPECT_FALSE(removed);
  SetEvent(leave.get());
}

TEST(LoggingTest, SurvivesASinkThatThrowsAndOneThatLogs) {
  const SinkScope throws([](const LogRecord&) { throw std::runtime_error("a bad sink"); });
  const SinkScope logs([](const LogRecord&) { Logger().LogInfo(L"from the sink"); });
  const Tests::LogCapture capture;
  Logger().LogInfo(L"x");
  EXPECT_THAT(capture.Lines(), ElementsAre(L"info|x"));
}

}  // namespace
}  // namespace Vx::Tessel::Server::Logging
