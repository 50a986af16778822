#include "bod/born_on_date.h"

#include "support/test.h"

namespace Vx::Tessel::Server::Services::Orvane {
namespace {

constexpr std::uint64_t kDay = 864'000'000'000;

TEST(CalendarTimeTest, AgreesWithKnownMomentsInBothDirections) {
  static constexpr std::pair<CalendarTime, std::uint64_t> kCases[] = {
      {{1601, 1, 1, 1, 0, 0, 0, 0}, 0},
      {{1970, 1, 4, 1, 0, 0, 0, 0}, 116'444'736'000'000'000},
      {{2000, 2, 2, 29, 12, 34, 56, 789}, 125'963'012'967'890'000},
      {{2038, 1, 2, 19, 3, 14, 7, 0}, 137'919'572'470'000'000},
  };
  for (const auto& [time, units] : kCases) {
    SCOPED_TRACE(units);
    EXPECT_EQ(FileTimeOf(time), units);
    EXPECT_EQ(CalendarTimeOf(units), time);
  }
}

TEST(CalendarTimeTest, AdvancesOneDayATimeFrom1601To2400) {
  CalendarTime before = CalendarTimeOf(0);
  for (std::uint64_t units = kDay; units < kDay * 800 * 365; units += kDay) {
    const CalendarTime day = CalendarTimeOf(units);
    ASSERT_EQ(FileTimeOf(day), units);
    ASSERT_EQ(day.dayOfWeek, (before.dayOfWeek + 1) % 7) << units;
    before = day;
  }
}

TEST(CalendarTimeTest, FieldsThatNameNoMomentHaveNoFileTime) {
  static constexpr CalendarTime kTimes[] = {
      {},
      {1600, 12, 0, 31},
      {30828, 1, 0, 1},
      {2024, 0, 0, 1},
      {2024, 257, 0, 1},
      {2024, 1, 0, 257},
      {2023, 2, 0, 29},
      {2024, 1, 0, 1, 24},
      {2024, 1, 0, 1, 0, 60},
      {2024, 1, 0, 1, 0, 0, 60},
      {2024, 1, 0, 1, 0, 0, 0, 1000},
  };
  for (const CalendarTime& time : kTimes) {
    EXPECT_FALSE(FileTimeOf(time).has_value()) << time.year << ' ' << time.month << ' ' << time.day;
  }
}

TEST(EarlierOfTest, TakesTheEarlierTheFirstOnATieAndNeverNonsense) {
  const CalendarTime early{2024, 1, 0, 1};
  const CalendarTime late{2024, 1, 0, 1, 0, 0, 0, 1};
  const CalendarTime sameAsEarly{2024, 1, 6, 1};
  const CalendarTime nonsense{2024, 77, 0, 1};
  EXPECT_EQ(EarlierOf(early, late), early);
  EXPECT_EQ(EarlierOf(late, early), early);
  EXPECT_EQ(EarlierOf(sameAsEarly, early), sameAsEarly);
  EXPECT_EQ(EarlierOf(late, nonsense), late);
  EXPECT_EQ(EarlierOf(nonsense, late), late);
}

}  // namespace
}  // namespace Vx::Tessel::Server::Services::Orvane
