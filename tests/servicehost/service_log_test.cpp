#include "servicehost/service_log.h"

#include "hosting/text.h"
#include "platform/thread.h"
#include "servicehost/log_folder.h"
#include "servicehost/service_parameters.h"
#include "servicehost/system_targets.h"
#include "simulator/virtual_clock.h"
#include "support/memory_shortage.h"
#include "support/test.h"
#include "vxhost/service/log_follower.h"

// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker's name
extern "C" decltype(&WriteFile) __imp_WriteFile;

namespace Vx::Hosting::ServiceHost {
namespace {

constexpr std::uint64_t kDay = std::uint64_t{86'400} * 10'000'000;
constexpr std::uint64_t kFirstDay = 154'497 * kDay;  // 2024-01-01

LogEntry Entry(std::uint64_t time, const std::wstring& message) {
  return {time, 7, 9, {L"WARNING", L"Vx-Test", L"client", message}};
}

TEST(LogFolderTest, BeginsAFileWithTheDayAndAtTheLimitAndKeepsTheNewest) {
  const Tests::TempFolder folder;
  Tests::WriteText(folder.Path() / "A-1-notes.log", "not a log");
  Tests::WriteText(folder.Path() / "A-2-20230101-0001.log", "of another service");
  LogFolder log(folder.Path().wstring(), L"A-1", {.fileBytes = 400, .files = 4});
  for (int day = 0; day < 3; ++day) {
    for (int line = 0; line < 4; ++line) {  // three lines fit
      log.Write(Entry(kFirstDay + static_cast<std::uint64_t>(day) * kDay, L"line"));
    }
  }
  log.Write(Entry(kFirstDay + 2 * kDay, std::wstring(400, L'x')));  // more than fits
  EXPECT_TRUE(exists(folder.Path() / "A-1-notes.log"));
  EXPECT_THAT(
      LogFileNames(folder.Path().wstring()),
      ElementsAre(L"A-2-20230101-0001.log", L"A-1-20240102-0002.log", L"A-1-20240103-0001.log",
                  L"A-1-20240103-0002.log", L"A-1-20240103-0003.log"));
}

TEST(LogFolderTest, DeletesTheFileThatWasWrittenLongestAgoWhateverItsName) {
  const Tests::TempFolder folder;
  const auto path = [&](const char* day) {
    return folder.Path() / ("A-" + std::string(day) + "-0001.log");
  };
  for (const char* day : {"20370101", "20370102"}) {
    Tests::WriteText(path(day), "{}\n");
    last_write_time(path(day),
                    std::filesystem::file_time_type::clock::now() - std::chrono::hours(1));
  }
  LogFolder log(folder.Path().wstring(), L"A", {.files = 2});
  log.Write(Entry(kFirstDay, L"line"));
  EXPECT_THAT(LogFileNames(folder.Path().wstring()),
              ElementsAre(L"A-20240101-0001.log", L"A-20370102-0001.log"));
  log.Write(Entry(kFirstDay + kDay, L"line"));
  EXPECT_THAT(LogFileNames(folder.Path().wstring(), L"a"),
              ElementsAre(L"A-20240101-0001.log", L"A-20240102-0001.log"));
}

TEST(LogFolderTest, ContinuesBehindALineThatAKillTore) {
  const Tests::TempFolder folder;
  const auto file = folder.Path() / "A-20240101-0001.log";
  Tests::WriteText(file, "{\"time\":\"20");
  LogFolder log(folder.Path().wstring(), L"A");
  log.Write(Entry(kFirstDay + 12'345'0000, L"a \"b\"\n\xE9"));
  EXPECT_EQ(Tests::ReadText(file),
            "{\"time\":\"20\n"
            R"({"time":"2024-01-01T00:00:12.345Z","level":"WARNING","provider":"Vx-Test",)"
            R"("caller":"client","thread":7,"process":9,"message":"a \"b\"\n)"
            "\xC3\xA9\"}\n");
}

TEST(LogFolderTest, LeavesAFileThatAnotherProcessWritesToIt) {
  const Tests::TempFolder folder;
  LogFolder other(folder.Path().wstring(), L"A");
  LogFolder log(folder.Path().wstring(), L"A");
  const LogEntry entry = Entry(kFirstDay, L"text");
  other.Write(entry);
  log.Write(entry);
  other.Write(entry);
  EXPECT_EQ(Tests::ReadText(folder.Path() / "A-20240101-0001.log"),
            JsonLineOf(entry) + JsonLineOf(entry));
  EXPECT_EQ(Tests::ReadText(folder.Path() / "A-20240101-0002.log"), JsonLineOf(entry));
}

// Simulates a disk that becomes full halfway through each write, which returns `partlyWritten`.
const auto writeAll = __imp_WriteFile;
BOOL partlyWritten = FALSE;
BOOL WINAPI WriteHalf(HANDLE file, const void* bytes, DWORD size, DWORD* count, OVERLAPPED* late) {
  return writeAll(file, bytes, size / 2, count, late) != FALSE && partlyWritten != FALSE;
}

TEST(LogFolderTest, LosesOnlyWhatItCannotWriteAndSaysSo) {
  const Tests::TempFolder parent;
  const auto folder = parent.Path() / L"Logs";
  bool allowed = false;
  LogFolder log(folder.wstring(), L"A", {}, [&] {
    if (!allowed) throw std::runtime_error("it may not be made");
    std::filesystem::create_directory(folder);
  });
  const LogEntry entry = Entry(kFirstDay, L"text");
  const auto write = [&] { log.Write(entry); };
  EXPECT_THAT(write, ThrowsMessage<std::exception>("it may not be made"));
  allowed = true;
  const std::string line = JsonLineOf(entry);
  std::string expected;
  for (const BOOL outcome : {TRUE, FALSE}) {
    log.Write(entry);
    partlyWritten = outcome;
    const Tests::ImportOverride full(__imp_WriteFile, &WriteHalf);
    EXPECT_THAT(write,
                ThrowsMessage<std::exception>(StartsWith("cannot write to " + folder.string())));
    expected += line + line.substr(0, line.size() / 2) + "\n";
  }
  log.Write(entry);
  const auto file = folder / L"A-20240101-0001.log";
  EXPECT_FALSE(DeleteFileW(file.c_str())) << "what is written later would go with it";
  EXPECT_EQ(Tests::ReadText(file), expected + line);
}

// Returns a target that stores the text of each entry, or throws while `*works` is false.
LogTarget KeepIn(std::vector<std::wstring>& messages, const bool* works = nullptr) {
  return [&messages, works](const LogEntry& entry) {
    if (works != nullptr && !*works) throw std::runtime_error("the disk is gone");
    messages.push_back(entry.line.message);
  };
}

// Blocks each entry until `open` is set.
struct Gate {
  LogTarget Before(const LogTarget& target) const {
    return [this, target](const LogEntry& entry) {
      SetEvent(entered.get());
      WaitForSingleObject(open.get(), 10'000);
      target(entry);
    };
  }

  Platform::UniqueHandle open{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  Platform::UniqueHandle entered{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
};

TEST(LogFollowerTest, ReadsTheNewestFileIfThereWasNoneAtFirstAndThenEachLaterOne) {
  const Tests::TempFolder folder;
  Tool::LogFollower follower(folder.Path().wstring(), {L"A"}, Tool::LogFollower::From::Now);
  EXPECT_EQ(follower.Next(), std::nullopt);
  Tests::WriteText(folder.Path() / "A-20240101-0001.log", "first\n");
  Tests::WriteText(folder.Path() / "A-20240101-0002.log", "second\nha");
  EXPECT_EQ(follower.Next(), "second");
  EXPECT_EQ(follower.Next(), std::nullopt) << "half a line";
  std::ofstream(folder.Path() / "A-20240101-0002.log", std::ios::app | std::ios::binary) << "lf\n";
  Tests::WriteText(folder.Path() / "A-20240102-0001.log", "third\n");
  EXPECT_EQ(follower.Next(), "half");
  EXPECT_EQ(follower.Next(), "third");
}

TEST(ServiceLogTest, DropsAndCountsInsteadOfWaitingForATarget) {
  std::vector<std::wstring> messages;
  {
    const Gate gate;
    ServiceLog log({gate.Before(KeepIn(messages))}, 2);
    log.Add(L"INFO", L"held");
    ASSERT_EQ(WaitForSingleObject(gate.entered.get(), 10'000), WAIT_OBJECT_0);
    for (const wchar_t* text : {L"1", L"2", L"3", L"4", L"5"}) log.Add(L"INFO", text);
    SetEvent(gate.open.get());
  }
  EXPECT_THAT(messages, ElementsAre(L"held", L"3 log lines were dropped", L"1", L"2"));
}

TEST(ServiceLogTest, WritesALineThatAThreadRepeatsOnceAndThenTheNumber) {
  std::vector<std::wstring> messages;
  {
    ServiceLog log({KeepIn(messages)}, ServiceLog::kQueue, 1min);
    const VxLogRecord record{};
    const VxLogLine decision{sizeof decision, 0, 0, L"", L"", L"decision", &record};
    for (const wchar_t* text : {L"a", L"a", L"a"}) log.Add(L"INFO", text);
    Platform::Thread([&log] { log.Add(L"INFO", L"a"); }).Join();
    log.Add(L"INFO", L"b");
    log.Add(L"WARNING", L"b");
    log.Add(L"WARNING", L"b");
    log.Flush();
    for (int i = 0; i < 2; ++i) log.Add(decision);
  }
  EXPECT_THAT(messages, ElementsAre(L"a", L"a", L"a (repeated: 2)", L"b", L"b", L"b (repeated: 1)",
                                    L"decision", L"decision"));
}

TEST(ServiceLogTest, ARepeatedLineIsCountedAfterAWhileAndThenWrittenAgain) {
  std::vector<std::wstring> messages;
  const Gate gate;
  SetEvent(gate.open.get());
  {
    ServiceLog log({gate.Before(KeepIn(messages))}, ServiceLog::kQueue, 20ms);
    for (int i = 0; i < 2; ++i) log.Add(L"INFO", L"a");
    ASSERT_EQ(WaitForSingleObject(gate.entered.get(), 10'000), WAIT_OBJECT_0);
    ResetEvent(gate.entered.get());
    ASSERT_EQ(WaitForSingleObject(gate.entered.get(), 10'000), WAIT_OBJECT_0);
    log.Add(L"INFO", L"a");
  }
  EXPECT_THAT(messages, ElementsAre(L"a", L"a (repeated: 1)", L"a"));
}

TEST(ServiceLogTest, NamesOnceWhatATargetRefusesAndCountsWhatItLost) {
  std::vector<std::wstring> refused;
  std::vector<std::wstring> messages;
  bool works = false;
  {
    ServiceLog log({KeepIn(refused, &works), KeepIn(messages)});
    log.Add(L"INFO", L"first");
    log.Flush();
    {
      const Tests::MemoryShortage shortage(Tests::Shortage::Lasting, 0);
      log.Add(L"ERROR", L"lost with its text");
      log.Add(VxLogLine{sizeof(VxLogLine), 0, 0, L"", L"", L"a line of the module", nullptr});
    }
    log.Add(L"INFO", L"next");
    log.Flush();
    works = true;
    log.Add(L"INFO", L"last");
  }
  EXPECT_THAT(messages, ElementsAre(L"log lines are lost from here on: the disk is gone", L"first",
                                    L"2 log lines were dropped", L"next", L"last"));
  EXPECT_THAT(refused, ElementsAre(L"4 log lines were dropped", L"last"));
}

TEST(JsonLineTest, ARecordHasTheMembersThatSaySomething) {
  const DecisionRecord whole{L"power",  L"ran", L"on time", L"1f", L"C:\\a.exe", L"family",
                             L"client", 7,      5,          12,    ~0ULL,        3};
  const std::pair<DecisionRecord, std::string> kCases[] = {
      {whole, R"("kind":"power","decision":"ran","reason":"on time","subscription":"1f",)"
              R"("target":"C:\\a.exe","package":"family","client":"client","number":7,"status":5,)"
              R"("process":12,"delivery":18446744073709551615,"milliseconds":3)"},
      {{.kind = L"command"}, R"("kind":"command","number":0)"},
      {{.kind = L"completion"}, R"("kind":"completion")"},
      {{}, ""},
  };
  for (const auto& [record, members] : kCases) {
    LogEntry entry = Entry(kFirstDay, L"m");
    entry.line.record = record;
    EXPECT_THAT(JsonLineOf(entry), EndsWith(R"("message":"m","record":{)" + members + "}}\n"));
  }
}

EventReport ReportTo(std::vector<std::wstring>& records) {
  return [&records](std::uint16_t type, std::uint32_t id, const EventTexts& texts) {
    std::wstring record = std::to_wstring(type) + L" " + std::to_wstring(id);
    for (const std::wstring& text : texts) record += L"|" + text;
    records.push_back(record);
  };
}

TEST(EventLogTest, TakesTheHostsWarningsAndTheDeliveriesThatDidNotRun) {
  std::vector<std::wstring> records;
  const LogTarget target = EventLogTarget(ReportTo(records));
  for (const wchar_t* provider : {kHostProvider, L"Vx-Test"}) {
    for (const wchar_t* level : {L"INFO", L"WARNING", L"ERROR"}) {
      target({kFirstDay, 7, 9, {level, provider, L"", L"text"}});
    }
  }
  EXPECT_THAT(records, ElementsAre(L"2 2147483649|text|Vx-Host-Service||7",
                                   L"1 3221225474|text|Vx-Host-Service||7"));
  const struct {
    const wchar_t* kind;
    const wchar_t* decision;
    bool taken;
  } kCases[] = {
      {L"power", L"dropped", true},         {L"platform", L"refused", true},
      {L"uninstall", L"failed", true},      {L"power", L"not_started", true},
      {L"power", L"not_sent", true},        {L"platform", L"not_raised", true},
      {L"power", L"started", false},        {L"command", L"refused", false},
      {L"completion", L"not_sent", false},  {L"power", L"a word of a later module", false},
      {L"a later kind", L"dropped", false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(Utf8(c.kind) + " " + Utf8(c.decision)));
    records.clear();
    LogLine line{L"INFO", L"Vx-Test", L"client", L"text"};
    line.record = {.kind = c.kind, .decision = c.decision, .subscription = L"1f"};
    target({kFirstDay, 7, 9, line});
    EXPECT_EQ(records.size(), c.taken ? 1U : 0U);
  }
  LogLine line{L"ERROR", L"Vx-Test", L"client", L"text"};
  line.record = {.kind = L"power",
                 .decision = L"refused",
                 .reason = L"unsigned",
                 .subscription = L"1f",
                 .target = L"C:\\%1\n%{\x202E.exe"};
  line.caller = L"%2";
  target({kFirstDay, 7, 9, line});
  EXPECT_EQ(records.back(),
            L"2 2147483649|power delivery did not run: refused, reason unsigned, subscription 1f, "
            L"target C:\\\xFF05"
            L"1 \xFF05{\xFFFD.exe|Vx-Test|\xFF05"
            L"2|7");
}

TEST(EventLogTest, AFloodOfEventsIsCutForAMinuteWithOneEventThatSaysSo) {
  Simulator::VirtualClock clock;
  const Platform::MachineScope scope([&](Platform::Machine& machine) { machine.clock = &clock; });
  std::vector<std::wstring> records;
  const LogTarget target = EventLogTarget(ReportTo(records));
  const auto write = [&](int count) {
    for (int i = 0; i < count; ++i) {
      target({kFirstDay, 7, 9, {L"ERROR", kHostProvider, L"", L"text"}});
    }
  };
  write(100);
  EXPECT_EQ(records.size(), 30U);
  EXPECT_THAT(records.back(),
              HasSubstr(L"|too many events: those of the next minute are only in the service's "
                        L"log files|"));
  clock.JumpTicks(1min);
  write(1);
  EXPECT_EQ(records.size(), 31U);
  EXPECT_THAT(records.back(), HasSubstr(L"|text|"));
}

TEST(EventLogTest, ItsSourceNamesTheMessageFileAndGoes) {
  const std::wstring name = L"VxSource" + std::to_wstring(GetCurrentProcessId());
  const std::wstring key = L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\" + name;
  wchar_t text[64] = {};
  DWORD size = sizeof text;
  const auto read = [&] {
    return RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"EventMessageFile", RRF_RT_REG_SZ,
                        nullptr, text, &size);
  };
  AddEventSource(name, L"C:\\x\\vxhost.exe");
  EXPECT_EQ(read(), ERROR_SUCCESS);
  EXPECT_STREQ(text, L"C:\\x\\vxhost.exe");
  RemoveEventSource(name);
  EXPECT_EQ(read(), ERROR_FILE_NOT_FOUND);
}

TEST(TraceTargetTest, AnEventHasItsLevelDescribesItsFieldsAndThenHasTheirValues) {
  std::string bytes;
  std::string levels;
  const LogTarget target = TraceTarget([&](std::uint8_t level, const TraceParts& parts) {
    levels += std::to_string(level);
    bytes.clear();
    for (const std::string_view part : parts) {
      bytes += '|';
      std::ranges::replace_copy(part, std::back_inserter(bytes), '\0', '.');
    }
  });
  for (const wchar_t* level : {L"WARNING", L"INFO", L"ERROR"}) {
    target({kFirstDay, 'T', 9, {level, L"p", L"", L"m"}});
  }
  EXPECT_EQ(levels, "342");
  EXPECT_EQ(bytes,
            "|\x12.Vx-Host-Service."
            "|\x31..Log.level.\x01provider.\x01"
            "caller.\x01thread.\x08message.\x01"
            "|E.R.R.O.R...|p...|..|T...|m...");
}

}  // namespace
}  // namespace Vx::Hosting::ServiceHost
