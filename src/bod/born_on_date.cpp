#include "bod/born_on_date.h"

#include <algorithm>
#include <stdexcept>
#include <string_view>

#include "json/decimal.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr char kVectorTooSmall[] = "BornOnDateManager::determine_date_to_assign - vector too small";

constexpr int kFirstFourDigitYear = 1970;
constexpr int kCenturyOfTwoDigits = 2000;

bool HasDayOfLongMonth(int /*year*/, int day) {
  return 1 <= day && day <= 31;
}

bool HasDayOfShortMonth(int /*year*/, int day) {
  return 1 <= day && day <= 30;
}

bool HasDayOfFebruary(int year, int day) {
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return 1 <= day && day <= (leap ? 29 : 28);
}

// `digits` has at most four digits, so the number cannot overflow.
int NumberOf(std::string_view digits) {
  int number = 0;
  for (const char digit : digits) number = number * 10 + (digit - '0');
  return number;
}

struct DateFields {
  int year;
  int month;
  int day;
};

// `date` must have six or eight digits.
DateFields FieldsOf(std::string_view date) {
  const std::size_t yearDigits = date.size() - 4;
  return {NumberOf(date.substr(0, yearDigits)), NumberOf(date.substr(yearDigits, 2)),
          NumberOf(date.substr(yearDigits + 2))};
}

}  // namespace

constinit const std::array<std::pair<int, BornOnDate::DayTest>, 12> BornOnDate::validDaysOfMonths{{
    {1, &HasDayOfLongMonth},
    {2, &HasDayOfFebruary},
    {3, &HasDayOfLongMonth},
    {4, &HasDayOfShortMonth},
    {5, &HasDayOfLongMonth},
    {6, &HasDayOfShortMonth},
    {7, &HasDayOfLongMonth},
    {8, &HasDayOfLongMonth},
    {9, &HasDayOfShortMonth},
    {10, &HasDayOfLongMonth},
    {11, &HasDayOfShortMonth},
    {12, &HasDayOfLongMonth},
}};

std::size_t DigitCount(BODFormat format) {
  return format == BODFormat::SixDigits ? 6 : 8;
}

BornOnDate::BornOnDate(std::string s) {
  init(std::move(s));
}

void BornOnDate::set(std::string s) {
  init(std::move(s));
}

void BornOnDate::init(std::string s) {
  format = BODFormat::Invalid;
  if (is_valid_born_on_date(s)) {
    format = s.size() == 6 ? BODFormat::SixDigits : BODFormat::EightDigits;
  }
  date = std::move(s);
}

CalendarTime BornOnDate::get_as_calendar_time() const {
  if (format == BODFormat::Invalid) return {};
  const DateFields fields = FieldsOf(date);
  const int century = format == BODFormat::SixDigits ? kCenturyOfTwoDigits : 0;
  CalendarTime time;
  time.year = static_cast<std::uint16_t>(century + fields.year);
  time.month = static_cast<std::uint16_t>(fields.month);
  time.day = static_cast<std::uint16_t>(fields.day);
  return time;
}

bool BornOnDate::is_valid_born_on_date(const std::string& s) noexcept {
  if (s.size() != 6 && s.size() != 8) return false;
  if (!std::all_of(s.begin(), s.end(), [](char c) { return '0' <= c && c <= '9'; })) return false;
  const DateFields fields = FieldsOf(s);
  if (s.size() == 8 && fields.year < kFirstFourDigitYear) return false;
  const auto* const month =
      std::find_if(validDaysOfMonths.begin(), validDaysOfMonths.end(),
                   [&](const auto& entry) { return entry.first == fields.month; });
  return month != validDaysOfMonths.end() && month->second(fields.year, fields.day);
}

void WriteDigits(std::span<std::uint8_t> buffer, BODFormat format, const CalendarTime& day) {
  if (buffer.size() < DigitCount(format)) throw std::invalid_argument(kVectorTooSmall);

  // The fields may be any 16-bit numbers, so the year and the whole text are truncated to their
  // widths. Six-digit firmware has always received only the last digit of the year.
  const bool six = format == BODFormat::SixDigits;
  std::string date = Json::Decimal(six ? day.year % 10 : day.year, six ? 2 : 4);
  date.resize(six ? 2 : 4);
  date += Json::Decimal(day.month, 2) + Json::Decimal(day.day, 2);
  std::copy_n(date.begin(), DigitCount(format), buffer.begin());
}

bool IsAssignable(const std::string& date, BODFormat format) {
  const std::size_t digits = DigitCount(format);
  if (date == std::string(digits, '0')) return true;
  return BornOnDate::is_valid_born_on_date(date) && date.size() == digits;
}

std::string TextOfBlock(std::span<const std::uint8_t> block) {
  return {block.begin(), std::find(block.begin(), block.end(), std::uint8_t{0})};
}

}  // namespace Vx::Tessel::Server::Services::Orvane
