#include "host/logging.h"

#include "support/test.h"

namespace Vx::Tessel::Server::Logging {
namespace {

constexpr std::chrono::seconds kLongestWait{20};

const TraceLogger& Logger() {
  return *LogManager::SetProvider("Vx-Test-Provider");
}

TEST(LoggingTest, CutsALineAtItsBound) {
  const wchar_t* none = nullptr;
  const std::wstring longest(4096, L'x');
  const Tests::LogCapture capture;
  Logger().LogInfo(L"%s", none);
  Logger().LogInfo(L"%s", longest.c_str());
  Logger().LogInfo(L"%s", (longest + std::wstring(100'000, L'y')).c_str());
  EXPECT_THAT(capture.Lines(), ElementsAre(L"info|(null)", L"info|" + longest, L"info|" + longest));
}

constexpr char kName[] = "J\xC3\xBCrgen";
constexpr wchar_t kWide[] = L"J\u00FCrgen";

TEST(NarrowTextsTest, AreReadAsUtf8WhereverTheyStandInALine) {
  const std::wstring name = kWide;
  const Tests::LogCapture log;
  Logger().LogInfo(L"%d %S %5.1f %s %8S|%-8S| %llu%% %S", -1, "ascii", 2.5, kWide, kName, kName,
                   ~0ULL, "\xF0\x9F\x98\x80 broken \xC3 and \xFF");
  Logger().LogInfo(L"%*d %S %*S", 3, 7, kName, 8, kName);
  Logger().LogInfo(L"%S %S %S %S %S %S %S %S %S", kName, "", "", "", "", "", "", kName, "ninth");
  Logger().LogInfo(L"100%% %S%", kName);
  EXPECT_THAT(log.Lines(),
              ElementsAre(L"info|-1 ascii   2.5 " + name + L"   " + name + L"|" + name +
                              L"  | 18446744073709551615% \xD83D\xDE00 broken \xFFFD and \xFFFD",
                          L"info|  7 " + name + L"   " + name,
                          L"info|" + name + L"       " + name + L" ninth",
                          testing::StartsWith(L"info|100% " + name)));
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
  const Tests::LogSink scope([&](const LogRecord& record) {
    seen.emplace_back(record.message);
    seen.emplace_back(record.caller);
  });
  Logger().For(hostile).LogError(L"%s.", hostile);
  Logger().For(std::wstring(1000, L'i').c_str()).LogError(L"");
  EXPECT_THAT(seen, ElementsAre(std::wstring(shown) + L".", shown, L"", std::wstring(256, L'i')));
}

TEST(LoggingTest, LeavesTheLastErrorAlone) {
  const Tests::LogSink scope([](const LogRecord&) { SetLastError(1); });
  SetLastError(0x1234);
  Logger().LogInfo(L"x");
  EXPECT_EQ(GetLastError(), 0x1234U);
}

TEST(LoggingTest, DoesNotTouchItsArgumentsWhileNobodyListens) {
  if (IsDebuggerPresent() != FALSE) GTEST_SKIP() << "a debugger is attached";
  EXPECT_EXIT(
      {
        // NOLINTNEXTLINE(performance-no-int-to-ptr): an address that must not be read
        Logger().LogInfo(L"%s", reinterpret_cast<const wchar_t*>(std::uintptr_t{1}));
        std::_Exit(0);
      },
      testing::ExitedWithCode(0), "");
}

TEST(LoggingTest, DeliversEveryLineWholeAndOneAtATimeFromOneLoggerAProvider) {
  constexpr int kLines = 300;
  int inside = 0;
  int faults = 0;
  std::vector<int> next(4, 0);
  std::vector<std::vector<TraceLogger*>> loggers(4);
  {
    const Tests::LogSink scope([&](const LogRecord& record) {
      if (++inside != 1) ++faults;
      int& line = next.at(static_cast<std::size_t>(record.message.at(7) - L'0'));
      const std::wstring number = std::to_wstring(line++);
      if (record.message.substr(8) != L" line " + number) ++faults;
      if (record.provider != L"Vx-" + number) ++faults;
      --inside;
    });
    std::vector<std::jthread> threads;
    for (std::size_t thread = 0; thread < loggers.size(); ++thread) {
      threads.emplace_back([&, thread] {
        for (int i = 0; i < kLines; ++i) {
          loggers[thread].push_back(LogManager::SetProvider(("Vx-" + std::to_string(i)).c_str()));
          loggers[thread].back()->LogInfo(L"thread %zu line %d", thread, i);
        }
      });
    }
  }
  EXPECT_EQ(faults, 0);
  EXPECT_THAT(next, Each(kLines));
  EXPECT_THAT(loggers, Each(loggers[0]));
}

struct SlowSink {
  void Take() {
    entered.set_value();
    leave.get_future().wait_for(kLongestWait);
    left = true;
  }

  void ExpectToBeAwaited(const std::function<void()>& remove) {
    const std::jthread logging([] { Logger().LogInfo(L"x"); });
    entered.get_future().wait_for(kLongestWait);
    const auto removed = std::async(std::launch::async, [&] {
      remove();
      EXPECT_TRUE(left);
    });
    // Long enough to catch a removal that does not wait. A slow machine can only mask the fault.
    EXPECT_EQ(removed.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    leave.set_value();
  }

  std::promise<void> entered;
  std::promise<void> leave;
  std::atomic<bool> left{false};
};

TEST(LoggingTest, RemovesASinkOnlyWhenNoCallIntoItIsLeft) {
  SlowSink own;
  const auto id = LogManager::AddSink([&](const LogRecord&) { own.Take(); });
  own.ExpectToBeAwaited([id] { LogManager::RemoveSink(id); });
  SlowSink host;
  VxSetLogSink([](const VxLogLine*, void* sink) { static_cast<SlowSink*>(sink)->Take(); }, &host);
  host.ExpectToBeAwaited([] { VxSetLogSink(nullptr, nullptr); });
}

struct HostLines {
  static void Take(const VxLogLine* line, void* context) {
    std::wstring text = std::to_wstring(line->level) + L'|' + line->provider + L'|' + line->caller +
                        L'|' + line->text;
    if (line->record != nullptr) text += std::wstring(L"|") + line->record->decision;
    if (line->thread != GetCurrentThreadId()) text += L"|wrong thread";
    static_cast<HostLines*>(context)->lines.push_back(text);
    LogManager::GetLogger()->LogInfo(L"from the sink");
  }

  std::vector<std::wstring> lines;
};

TEST(HostSinkTest, ReceivesLinesAndRecordsUntilItIsReplaced) {
  HostLines first;
  HostLines second;
  VxLogRecord record{};
  record.decision = L"ran";
  record.client = L"a\nclient";
  VxSetLogSink(&HostLines::Take, &first);
  Logger().LogWarning(L"%d", 7);
  SetLastError(7);
  WriteRecord(record, LogLevel::Warning, L"one delivery");
  EXPECT_EQ(GetLastError(), 7U);
  VxSetLogSink(&HostLines::Take, &second);
  Logger().For(L"x").LogError(L"8");
  VxSetLogSink(nullptr, nullptr);
  Logger().LogInfo(L"9");
  EXPECT_THAT(first.lines, ElementsAre(L"1|Vx-Test-Provider||7",
                                       L"1|Vx-Tessel-Service|a client|one delivery|ran"));
  EXPECT_THAT(second.lines, ElementsAre(L"2|Vx-Test-Provider|x|8"));
}

TEST(LoggingTest, SurvivesASinkThatThrowsAndOneThatLogs) {
  const Tests::LogSink throws([](const LogRecord&) { throw std::runtime_error("a bad sink"); });
  const Tests::LogSink logs([](const LogRecord&) { Logger().LogInfo(L"from the sink"); });
  const Tests::LogCapture capture;
  Logger().LogInfo(L"x");
  EXPECT_THAT(capture.Lines(), ElementsAre(L"info|x"));
}

}  // namespace
}  // namespace Vx::Tessel::Server::Logging
