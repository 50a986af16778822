#include "bod/born_on_date.h"

#include "support/test.h"

namespace Vx::Tessel::Server::Services::Orvane {
namespace {

CalendarTime Day(int year, int month, int day) {
  return {static_cast<std::uint16_t>(year), static_cast<std::uint16_t>(month), 0,
          static_cast<std::uint16_t>(day)};
}

// Compares with the standard library's calendar for the year in the text.
TEST(BornOnDateTest, AgreesWithTheCalendarOnEveryDayFieldOf1970To2100) {
  for (int year = 1970; year <= 2100; ++year) {
    for (unsigned month = 0; month <= 99; ++month) {
      for (unsigned day = 0; day <= 99; ++day) {
        if (month > 13 && day != 1) continue;
        const auto isDayOf = [&](int asked) {
          return std::chrono::year_month_day{std::chrono::year{asked}, std::chrono::month{month},
                                             std::chrono::day{day}}
              .ok();
        };
        char text[32];
        ASSERT_EQ(std::snprintf(text, sizeof text, "%04d%02u%02u", year, month, day), 8);
        ASSERT_EQ(BornOnDate::is_valid_born_on_date(text), isDayOf(year)) << text;
        ASSERT_EQ(BornOnDate::is_valid_born_on_date(text + 2), isDayOf(year % 100)) << text + 2;
      }
    }
  }
}

TEST(BornOnDateTest, GivesEachTextThatItIsSetToItsFormatAndItsDate) {
  static const struct {
    const char* name;
    std::string text;
    BODFormat format;
    CalendarTime time;
  } kCases[] = {
      {"six digits", "240229", BODFormat::SixDigits, Day(2024, 2, 29)},
      {"the year 00 has a leap day", "000229", BODFormat::SixDigits, Day(2000, 2, 29)},
      {"two digits are always 20xx", "691231", BODFormat::SixDigits, Day(2069, 12, 31)},
      {"a day before the first", "19691231", BODFormat::Invalid, {}},
      {"eight digits", "20240229", BODFormat::EightDigits, Day(2024, 2, 29)},
      {"the first day", "19700101", BODFormat::EightDigits, Day(1970, 1, 1)},
      {"the last year", "99991231", BODFormat::EightDigits, Day(9999, 12, 31)},
      {"empty", "", BODFormat::Invalid, {}},
      {"seven digits", "2024022", BODFormat::Invalid, {}},
      {"nine digits", "202402290", BODFormat::Invalid, {}},
      {"a sign and a blank", "+24 229", BODFormat::Invalid, {}},
      {"a zero byte inside", std::string("2402\0009", 6), BODFormat::Invalid, {}},
      {"bytes above ASCII", "\xB2\xB3\x30\x31\x30\x31", BODFormat::Invalid, {}},
  };
  BornOnDate date;
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    date.set(c.text);
    EXPECT_EQ(date.get(), c.text);
    EXPECT_EQ(date.get_format(), c.format);
    EXPECT_EQ(date.get_as_calendar_time(), c.time);
  }
}

std::string Written(BODFormat format, const CalendarTime& day, std::size_t size) {
  std::vector<std::uint8_t> buffer(size, '?');
  WriteDigits(buffer, format, day);
  return {buffer.begin(), buffer.end()};
}

TEST(WriteDigitsTest, WritesTheDigitsOfTheDayAndNothingBehindThem) {
  EXPECT_EQ(Written(BODFormat::EightDigits, Day(2024, 3, 5), 10), "20240305??");
  EXPECT_EQ(Written(BODFormat::SixDigits, Day(2024, 12, 31), 10), "041231????");
  EXPECT_EQ(Written(BODFormat::SixDigits, Day(2031, 1, 2), 6), "010102") << "the decade is lost";
  EXPECT_EQ(Written(BODFormat::EightDigits, Day(65535, 65535, 65535), 8), "65536553")
      << "fields that are too wide are truncated";
}

TEST(WriteDigitsTest, RefusesABufferThatIsTooSmall) {
  EXPECT_THROW(Written(BODFormat::SixDigits, Day(2024, 1, 1), 5), std::invalid_argument);
  EXPECT_THAT([] { Written(BODFormat::EightDigits, Day(2024, 1, 1), 7); },
              ThrowsMessage<std::invalid_argument>(
                  "BornOnDateManager::determine_date_to_assign - vector too small"));
}

}  // namespace
}  // namespace Vx::Tessel::Server::Services::Orvane
