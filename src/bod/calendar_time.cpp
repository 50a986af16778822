#include "bod/calendar_time.h"

#include <chrono>
#include <cstring>

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using FileTimeUnits = std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>;

constexpr std::chrono::sys_days kFileTimeEpoch = std::chrono::year{1601} / std::chrono::January / 1;

constexpr auto kUnitsADay = static_cast<std::uint64_t>(FileTimeUnits{std::chrono::days{1}}.count());

constexpr unsigned kFirstYear = 1601;
constexpr unsigned kLastYear = 30827;

}  // namespace

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

  CalendarTime time;
  time.year = static_cast<std::uint16_t>(static_cast<int>(date.year()));
  time.month = static_cast<std::uint16_t>(static_cast<unsigned>(date.month()));
  time.dayOfWeek = static_cast<std::uint16_t>(std::chrono::weekday{day}.c_encoding());
  time.day = static_cast<std::uint16_t>(static_cast<unsigned>(date.day()));
  time.hour = static_cast<std::uint16_t>(ofDay.hours().count());
  time.minute = static_cast<std::uint16_t>(ofDay.minutes().count());
  time.second = static_cast<std::uint16_t>(ofDay.seconds().count());
  time.millisecond = static_cast<std::uint16_t>(ofDay.subseconds().count());
  return time;
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
  CalendarTime date;
  date.year = stored.year;
  date.month = stored.month;
  date.day = stored.day;
  return date;
}

}  // namespace Vx::Tessel::Server::Services::Orvane
