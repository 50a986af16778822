#include "bod/born_on_date.h"

#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace Vx::Tessel::Server::Services::Orvane {
namespace {

std::string Digits(int year, unsigned month, unsigned day, BODFormat format) {
  char text[32];
  if (format == BODFormat::EightDigits) {
    static_cast<void>(std::snprintf(text, sizeof text, "%04d%02u%02u", year, month, day));
  } else {
    static_cast<void>(std::snprintf(text, sizeof text, "%02d%02u%02u", year % 100, month, day));
  }
  return text;
}

bool NamesADay(int year, unsigned month, unsigned day) {
  return std::chrono::year_month_day{std::chrono::year{year}, std::chrono::month{month},
                                     std::chrono::day{day}}
      .ok();
}

// The standard library's calendar is the judge, asked with the year that the text spells.
TEST(BornOnDateValidityTest, AgreesWithTheCalendarOnEveryDayFieldOf1970To2100) {
  for (int year = 1970; year <= 2100; ++year) {
    for (unsigned month = 0; month <= 99; ++month) {
      for (unsigned day = 0; day <= 99; ++day) {
        if (month > 13 && day != 1) continue;
        const std::string eight = Digits(year, month, day, BODFormat::EightDigits);
        ASSERT_EQ(BornOnDate::is_valid_born_on_date(eight), NamesADay(year, month, day)) << eight;
        const std::string six = Digits(year, month, day, BODFormat::SixDigits);
        ASSERT_EQ(BornOnDate::is_valid_born_on_date(six), NamesADay(year % 100, month, day)) << six;
      }
    }
  }
}

TEST(BornOnDateTest, GivesATextItsFormatAndItsDate) {
  static const struct {
    const char* name;
    std::string text;
    BODFormat format;
    CalendarTime time;
  } kCases[] = {
      {"six digits", "240229", BODFormat::SixDigits, {2024, 2, 0, 29, 0, 0, 0, 0}},
      {"the year 00 has a leap day", "000229", BODFormat::SixDigits, {2000, 2, 0, 29, 0, 0, 0, 0}},
      {"two digits have no first year",
       "691231",
       BODFormat::SixDigits,
       {2069, 12, 0, 31, 0, 0, 0, 0}},
      {"eight digits", "20240229", BODFormat::EightDigits, {2024, 2, 0, 29, 0, 0, 0, 0}},
      {"the first day", "19700101", BODFormat::EightDigits, {1970, 1, 0, 1, 0, 0, 0, 0}},
      {"no last year", "99991231", BODFormat::EightDigits, {9999, 12, 0, 31, 0, 0, 0, 0}},
      {"a day before the first", "19691231", BODFormat::Invalid, {}},
      {"no leap year", "20230229", BODFormat::Invalid, {}},
      {"a century that is no leap year", "21000229", BODFormat::Invalid, {}},
      {"zeros", "00000000", BODFormat::Invalid, {}},
      {"empty", "", BODFormat::Invalid, {}},
      {"seven digits", "2024022", BODFormat::Invalid, {}},
      {"nine digits", "202402290", BODFormat::Invalid, {}},
      {"a dash", "24-229", BODFormat::Invalid, {}},
      {"a sign and a blank", "+24 229", BODFormat::Invalid, {}},
      {"blanks before digits", "  0229", BODFormat::Invalid, {}},
      {"a zero byte inside", std::string("2402\0009", 6), BODFormat::Invalid, {}},
      {"bytes above ASCII", "\xB2\xB3\x30\x31\x30\x31", BODFormat::Invalid, {}},
      {"letters", "2024ABCD", BODFormat::Invalid, {}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    const BornOnDate date(c.text);
    EXPECT_EQ(date.get(), c.text);
    EXPECT_EQ(date.get_format(), c.format);
    EXPECT_EQ(date.get_as_calendar_time(), c.time);
  }
}

TEST(BornOnDateTest, WorksOutTheFormatAnewEachTimeItIsSet) {
  BornOnDate date("20240229");
  date.set("20230229");
  EXPECT_EQ(date.get_format(), BODFormat::Invalid);
  EXPECT_EQ(date.get(), "20230229");
  date.set("240229");
  EXPECT_EQ(date.get_format(), BODFormat::SixDigits);
}

std::string Written(BODFormat format, const CalendarTime& day, std::size_t size) {
  std::vector<std::uint8_t> buffer(size, '?');
  WriteDigits(buffer, format, day);
  return {buffer.begin(), buffer.end()};
}

TEST(WriteDigitsTest, WritesTheDigitsOfTheDayAndNothingBehindThem) {
  static const struct {
    const char* name = nullptr;
    BODFormat format = BODFormat::Invalid;
    CalendarTime day;
    const char* expected = nullptr;
  } kCases[] = {
      {"four-digit year", BODFormat::EightDigits, {2024, 3, 0, 5, 0, 0, 0, 0}, "20240305??"},
      {"only the last digit of the year",
       BODFormat::SixDigits,
       {2024, 12, 0, 31, 0, 0, 0, 0},
       "041231????"},
      {"the decade is lost", BODFormat::SixDigits, {2031, 1, 0, 2, 0, 0, 0, 0}, "010102????"},
      {"fields too wide are cut to their columns",
       BODFormat::EightDigits,
       {65535, 65535, 0, 65535, 0, 0, 0, 0},
       "65536553??"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Written(c.format, c.day, 10), c.expected);
  }
}

TEST(WriteDigitsTest, RefusesABufferThatIsTooSmall) {
  const CalendarTime day{2024, 1, 0, 1, 0, 0, 0, 0};
  EXPECT_EQ(Written(BODFormat::SixDigits, day, 6), "040101");
  EXPECT_EQ(Written(BODFormat::EightDigits, day, 8), "20240101");
  EXPECT_THROW(Written(BODFormat::SixDigits, day, 5), std::invalid_argument);
  try {
    Written(BODFormat::EightDigits, day, 7);
    ADD_FAILURE() << "seven bytes were taken for eight digits";
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "BornOnDateManager::determine_date_to_assign - vector too small");
  }
}

TEST(IsAssignableTest, TakesAValidDateOrZerosOfJustTheFirmwaresLength) {
  static const struct {
    const char* text;
    bool six;
    bool eight;
  } kCases[] = {
      {"240229", true, false},   {"20240229", false, true}, {"000000", true, false},
      {"00000000", false, true}, {"0000000", false, false}, {"240230", false, false},
      {"", false, false},        {"0", false, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(IsAssignable(c.text, BODFormat::SixDigits), c.six);
    EXPECT_EQ(IsAssignable(c.text, BODFormat::EightDigits), c.eight);
  }
}

TEST(TextOfBlockTest, EndsAtTheFirstZeroByteOrTheEndOfTheBlock) {
  const std::vector<std::uint8_t> embedded{'2', '4', 0, '1', 0};
  EXPECT_EQ(TextOfBlock(embedded), "24");
  const std::vector<std::uint8_t> unterminated(128, '7');
  EXPECT_EQ(TextOfBlock(unterminated), std::string(128, '7'));
  EXPECT_EQ(TextOfBlock({}), "");
}

}  // namespace
}  // namespace Vx::Tessel::Server::Services::Orvane
