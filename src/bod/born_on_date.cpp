#include "bod/born_on_date.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include "json/decimal.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr char kVectorTooSmall[] = "BornOnDateManager::determine_date_to_assign - vector too small";

constexpr int kFirstFourDigitYear = 1970;
constexpr int kCenturyOfTwoDigits = 2000;

using FileTimeUnits = std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>;

constexpr std::chrono::sys_days kFileTimeEpoch = std::chrono::year{1601} / std::chrono::January / 1;

constexpr auto kUnitsADay = static_cast<std::uint64_t>(FileTimeUnits{std::chrono::days{1}}.count());

constexpr unsigned kFirstYear = 1601;
constexpr unsigned kLastYear = 30827;

template <int kLast>
bool HasDay(int /*year*/, int day) {
  return 1 <= day && day <= kLast;
}

bool HasDayOfFebruary(int year, int day) {
  return 1 <= day && day <= (std::chrono::year(year).is_leap() ? 29 : 28);
}

struct DateFields {
  int year;
  int month;
  int day;
};

// `date` must have six or eight digits.
DateFields FieldsOf(std::string_view date) {
  int number = 0;
  for (const char digit : date) number = number * 10 + (digit - '0');
  return {number / 10000, number / 100 % 100, number % 100};
}

}  // namespace

constinit const std::array<std::pair<int, BornOnDate::DayTest>, 12> BornOnDate::validDaysOfMonths{{
    {1, &HasDay<31>},
    {2, &HasDayOfFebruary},
    {3, &HasDay<31>},
    {4, &HasDay<30>},
    {5, &HasDay<31>},
    {6, &HasDay<30>},
    {7, &HasDay<31>},
    {8, &HasDay<31>},
    {9, &HasDay<30>},
    {10, &HasDay<31>},
    {11, &HasDay<30>},
    {12, &HasDay<31>},
}};

std::optional<std::uint64_t> FileTimeOf(const CalendarTime& time) {
  if (time.year < kFirstYear || time.year > kLastYear) return std::nullopt;
  const std::chrono::year_month_day date{
      std::chrono::year{time.year}, std::chrono::month{time.month}, std::chrono::day{time.day}};
  // std::chrono keeps months and days in one byte each, so 257 would become 1.
  if (time.month > 12 || time.day > 31 || !date.ok()) return std::nullopt;
  if (time.hour > 23 || time.minute > 59 || time.second > 59 || time.millisecond > 999) {
    return std::nullopt;
  }
  const FileTimeUnits sinceEpoch =
      (std::chrono::sys_days{date} - kFileTimeEpoch) + std::chrono::hours{time.hour} +
      std::chrono::minutes{time.minute} + std::chrono::seconds{time.second} +
      std::chrono::milliseconds{time.millisecond};
  return static_cast<std::uint64_t>(sinceEpoch.count());
}

CalendarTime CalendarTimeOf(std::uint64_t fileTime) {
  // Divides first, because the whole number may not fit in a signed duration.
  const std::chrono::days wholeDays{static_cast<std::int64_t>(fileTime / kUnitsADay)};
  const FileTimeUnits rest{static_cast<std::int64_t>(fileTime % kUnitsADay)};
  const std::chrono::sys_days day = kFileTimeEpoch + wholeDays;
  const std::chrono::year_month_day date{day};
  const std::chrono::hh_mm_ss ofDay{std::chrono::floor<std::chrono::milliseconds>(rest)};

  return {.year = static_cast<std::uint16_t>(static_cast<int>(date.year())),
          .month = static_cast<std::uint16_t>(static_cast<unsigned>(date.month())),
          .dayOfWeek = static_cast<std::uint16_t>(std::chrono::weekday{day}.c_encoding()),
          .day = static_cast<std::uint16_t>(static_cast<unsigned>(date.day())),
          .hour = static_cast<std::uint16_t>(ofDay.hours().count()),
          .minute = static_cast<std::uint16_t>(ofDay.minutes().count()),
          .second = static_cast<std::uint16_t>(ofDay.seconds().count()),
          .millisecond = static_cast<std::uint16_t>(ofDay.subseconds().count())};
}

CalendarTime EarlierOf(const CalendarTime& first, const CalendarTime& second) {
  const auto firstUnits = FileTimeOf(first);
  const auto secondUnits = FileTimeOf(second);
  if (!secondUnits) return first;
  if (!firstUnits || *secondUnits < *firstUnits) return second;
  return first;
}

CalendarTime DateOfTimeStamp(std::span<const std::byte> bytes) {
  CalendarTime stored;
  if (bytes.size() < sizeof stored) return {};
  std::memcpy(&stored, bytes.data(), sizeof stored);
  return {.year = stored.year, .month = stored.month, .day = stored.day};
}

std::size_t DigitCount(BODFormat format) {
  return format == BODFormat::SixDigits ? 6 : 8;
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
  return {.year = static_cast<std::uint16_t>(century + fields.year),
          .month = static_cast<std::uint16_t>(fields.month),
          .day = static_cast<std::uint16_t>(fields.day)};
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
