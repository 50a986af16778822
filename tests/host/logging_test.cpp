#include "host/logging.h"

#include <gmock/gmock.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
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

using testing::ElementsAre;
using testing::StartsWith;

constexpr DWORD kLongestWait = 20'000;  // milliseconds

const TraceLogger& Logger() {
  return *LogManager::SetProvider("Vx-Test-Provider");
}

Platform::UniqueHandle MakeEvent() {
  return Platform::UniqueHandle(CreateEventW(nullptr, TRUE, FALSE, nullptr));
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

TEST(LoggingTest, FormatsWithTheHostsMeaningOfTheLetters) {
  const wchar_t* noWide = nullptr;
  const char* noNarrow = nullptr;
  const struct {
    const wchar_t* expected;
    std::function<void()> log;
  } kCases[] = {
      {L"info|wide narrow", [] { Logger().LogInfo(L"%s %S", L"wide", "narrow"); }},
      {L"info|wide narrow", [] { Logger().LogInfo(L"%ls %hs", L"wide", "narrow"); }},
      {L"info|-1 ff 18446744073709551615", [] { Logger().LogInfo(L"%d %x %llu", -1, 255, ~0ULL); }},
      {L"info|(null) (null)", [=] { Logger().LogInfo(L"%s %S", noWide, noNarrow); }},
      {L"info|\x4e2d\x6587 \xd83d\xde00",
       [] { Logger().LogInfo(L"%s", L"\x4e2d\x6587 \xd83d\xde00"); }},
      {L"info|100%", [] { Logger().LogInfo(L"100%%"); }},
      {L"info|", [] { Logger().LogInfo(L""); }},
  };
  for (const auto& c : kCases) {
    const Tests::LogCapture capture;
    c.log();
    EXPECT_THAT(capture.Lines(), ElementsAre(c.expected));
  }
}

TEST(LoggingTest, CutsALineAtItsBound) {
  const std::wstring longest(4096, L'x');
  for (const std::size_t more : {0U, 1U, 100'000U}) {
    const Tests::LogCapture capture;
    Logger().LogInfo(L"%s", (longest + std::wstring(more, L'y')).c_str());
    EXPECT_THAT(capture.Lines(), ElementsAre(L"info|" + longest)) << more;
  }
}

TEST(LoggingTest, CarriesLevelProviderAndCaller) {
  std::vector<std::wstring> seen;
  const SinkScope scope([&](const LogRecord& record) {
    seen.push_back(std::to_wstring(static_cast<int>(record.level)) + L"|" +
                   std::wstring(record.provider) + L"|" + std::wstring(record.caller));
  });
  Logger().LogInfo(L"x");
  Logger().LogWarning(L"x");
  Logger().For(L"client").LogError(L"x");
  Logger().For(nullptr).LogWarning(L"x");
  EXPECT_THAT(seen, ElementsAre(L"0|Vx-Test-Provider|", L"1|Vx-Test-Provider|",
                                L"2|Vx-Test-Provider|client", L"1|Vx-Test-Provider|"));
}

TEST(LoggingTest, GivesOneLoggerAProvider) {
  constexpr std::size_t kProviders = 1000;
  std::atomic<bool> start{false};
  std::vector<std::vector<TraceLogger*>> loggers(4);
  std::vector<std::thread> threads;
  threads.reserve(loggers.size());
  for (auto& seen : loggers) {
    threads.emplace_back([&] {
      while (!start) {
      }
      for (std::size_t i = 0; i < kProviders; ++i) {
        seen.push_back(LogManager::SetProvider(("Vx-Asked-At-Once-" + std::to_string(i)).c_str()));
      }
    });
  }
  start = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(loggers, testing::Each(loggers[0]));
  EXPECT_NE(loggers[0][0], loggers[0][1]);
  EXPECT_EQ(LogManager::GetLogger(), LogManager::GetLogger());
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
  constexpr int kThreads = 4;
  constexpr int kLines = 300;
  std::atomic<int> inside{0};
  int overlaps = 0;
  int damaged = 0;
  std::vector<int> next(kThreads, 0);
  {
    const SinkScope scope([&](const LogRecord& record) {
      if (inside.fetch_add(1) != 0) ++overlaps;
      int thread = -1;
      int line = -1;
      if (std::swscanf(std::wstring(record.message).c_str(), L"thread %d line %d", &thread,
                       &line) != 2 ||
          next.at(static_cast<std::size_t>(thread))++ != line) {
        ++damaged;
      }
      inside.fetch_sub(1);
    });
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([t] {
        for (int i = 0; i < kLines; ++i) Logger().LogInfo(L"thread %d line %d", t, i);
      });
    }
    for (std::thread& thread : threads) thread.join();
  }
  EXPECT_EQ(overlaps, 0);
  EXPECT_EQ(damaged, 0);
  EXPECT_THAT(next, testing::Each(kLines));
}

TEST(LoggingTest, RemovesASinkOnlyWhenNoCallIntoItIsLeft) {
  const Platform::UniqueHandle entered = MakeEvent();
  const Platform::UniqueHandle leave = MakeEvent();
  std::atomic<bool> left{false};
  const auto id = LogManager::AddSink([&](const LogRecord&) {
    SetEvent(entered.get());
    WaitForSingleObject(leave.get(), kLongestWait);
    left = true;
  });
  std::thread logging([] { Logger().LogInfo(L"x"); });
  ASSERT_EQ(WaitForSingleObject(entered.get(), kLongestWait), WAIT_OBJECT_0);
  std::atomic<bool> removed{false};
  bool leftBeforeRemoved = false;
  std::thread removing([&] {
    LogManager::RemoveSink(id);
    leftBeforeRemoved = left;
    removed = true;
  });
  // Long enough for a removal that does not wait; a slow machine can only hide the fault.
  Sleep(50);
  EXPECT_FALSE(removed);
  SetEvent(leave.get());
  removing.join();
  logging.join();
  EXPECT_TRUE(leftBeforeRemoved);
}

TEST(LoggingTest, SurvivesASinkThatThrowsAndOneThatLogs) {
  const SinkScope throws([](const LogRecord&) { throw std::runtime_error("a bad sink"); });
  const SinkScope logs([](const LogRecord&) { Logger().LogInfo(L"from the sink"); });
  const Tests::LogCapture capture;
  Logger().LogInfo(L"x");
  EXPECT_THAT(capture.Lines(), ElementsAre(L"info|x"));
}

// A monitor of debug output: one shared buffer, which holds the writer's process id and its text,
// and two events that pass it to and fro.
class DebugMonitor {
 public:
  DebugMonitor()
      : ready(CreateEventW(nullptr, FALSE, TRUE, L"DBWIN_BUFFER_READY")),
        data(CreateEventW(nullptr, FALSE, FALSE, L"DBWIN_DATA_READY")),
        memory(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, kBytes,
                                  L"DBWIN_BUFFER")),
        view(static_cast<const char*>(MapViewOfFile(memory.get(), FILE_MAP_READ, 0, 0, kBytes))) {}
  DebugMonitor(const DebugMonitor&) = delete;
  DebugMonitor& operator=(const DebugMonitor&) = delete;
  ~DebugMonitor() { UnmapViewOfFile(view); }

  // The next text that this process wrote; empty when there is none within `limit` milliseconds.
  std::string Next(DWORD limit) const {
    while (WaitForSingleObject(data.get(), limit) == WAIT_OBJECT_0) {
      DWORD process = 0;
      std::memcpy(&process, view, sizeof process);
      std::string text(view + sizeof process);
      SetEvent(ready.get());
      if (process == GetCurrentProcessId()) return text;
    }
    return {};
  }

 private:
  static constexpr DWORD kBytes = 4096;

  Platform::UniqueHandle ready;
  Platform::UniqueHandle data;
  Platform::UniqueHandle memory;
  const char* view;
};

// Logs until the monitor gets a line: the answer that nobody listens holds for a second.
std::string FirstLine(const DebugMonitor& monitor, const std::function<void()>& log) {
  for (int i = 0; i < 200; ++i) {
    log();
    std::string line = monitor.Next(50);
    if (!line.empty()) return line;
  }
  return {};
}

TEST(LoggingTest, ShowsLinesToAMonitorThatCameLater) {
  Logger().LogInfo(L"unseen");
  const DebugMonitor monitor;
  EXPECT_EQ(FirstLine(monitor, [] { Logger().For(L"client").LogWarning(L"number %d", 7); }),
            "WARNING Vx-Test-Provider [client] number 7\n");
  Logger().LogError(L"no caller");
  EXPECT_EQ(monitor.Next(kLongestWait), "ERROR Vx-Test-Provider no caller\n");
  Logger().LogInfo(L"%s", std::wstring(10'000, L'x').c_str());
  EXPECT_THAT(monitor.Next(kLongestWait), StartsWith("INFO Vx-Test-Provider xxxx"));
}

}  // namespace
}  // namespace Vx::Tessel::Server::Logging
