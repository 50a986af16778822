#include "records/record.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/logging.h"

namespace Vx::Tessel::Server::Records {

namespace {

// Programs compare the words, and people read the line.
TEST(Record, IsWrittenWithItsWordsAndALineForPeople) {
  const struct {
    Record record;
    const wchar_t* words = nullptr;
    const wchar_t* line = nullptr;
  } cases[] = {
      {{.kind = Kind::Power,
        .outcome = {Decision::Ran, Reason::None, 12},
        .subscription = L"ab",
        .number = 18},
       L"power ran ",
       L"0 OrvaneService - power 18 to subscription ab: ran, process 12"},
      {{.kind = Kind::Platform,
        .outcome = {Decision::Dropped, Reason::TooManyOfAll},
        .subscription = L"ab",
        .number = 1},
       L"platform dropped too_many_of_all",
       L"1 OrvaneService - platform 1 to subscription ab: dropped, too many deliveries exist "
       L"already"},
      {{.kind = Kind::Power,
        .outcome = {Decision::Dropped, Reason::TooManyOfOne},
        .subscription = L"ab",
        .number = 7},
       L"power dropped too_many_of_one",
       L"1 OrvaneService - power 7 to subscription ab: dropped, too many deliveries of it wait "
       L"already"},
      {{.outcome = {Decision::Stored, Reason::NotWatched, 0x20000008},
        .subscription = L"ab",
        .number = 7},
       L"command stored not_watched",
       L"0 OrvaneService - subscription ab: accepted (function id 7), its package is not watched "
       L"before the next logon (status 0x20000008)"},
      {{.kind = Kind::Completion,
        .outcome = {Decision::Removed, Reason::HasRun},
        .subscription = L"ab"},
       L"completion removed has_run",
       L"0 OrvaneService - subscription ab: taken back, its command has run"},
      {{.outcome = {Decision::Done}, .number = 16},
       L"command done ",
       L"0 OrvaneService - command 16: done"},
  };
  std::wstring words;
  std::wstring line;
  const auto sink = Logging::LogManager::AddSink([&](const Logging::LogRecord& written) {
    words = written.record->kind + (std::wstring(L" ") + written.record->decision) + L" " +
            written.record->reason;
    line = std::to_wstring(static_cast<int>(written.level)) + L" " + std::wstring(written.message);
  });
  for (const auto& c : cases) {
    Write(c.record);
    EXPECT_EQ(words, c.words);
    EXPECT_EQ(line, c.line);
  }
  Logging::LogManager::RemoveSink(sink);
  EXPECT_EQ(FromWord<Reason>(L"too_many_of_all"), Reason::TooManyOfAll);
  EXPECT_EQ(FromWord<Decision>(L"of a later version"), std::nullopt);
}

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
