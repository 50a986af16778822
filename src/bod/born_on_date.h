#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>

// The struct tag of SYSTEMTIME, which can be declared without <windows.h>.
struct _SYSTEMTIME;  // NOLINT(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace Vx::Tessel::Server::Services::Orvane {

// A UTC time with the layout of Windows' SYSTEMTIME, so that copying the 16 bytes converts it.
struct CalendarTime {
  std::uint16_t year = 0;
  std::uint16_t month = 0;  // 1 to 12
  std::uint16_t dayOfWeek = 0;
  std::uint16_t day = 0;  // 1 to 31
  std::uint16_t hour = 0;
  std::uint16_t minute = 0;
  std::uint16_t second = 0;
  std::uint16_t millisecond = 0;

  friend bool operator==(const CalendarTime&, const CalendarTime&) = default;
};

// Returns the time in 100-nanosecond units since 1601-01-01. Ignores the day of the week. Returns
// nothing if the fields are not a valid time in the years 1601 to 30827.
std::optional<std::uint64_t> FileTimeOf(const CalendarTime& time);

// Returns the time `fileTime` units after 1601-01-01, truncated to milliseconds.
CalendarTime CalendarTimeOf(std::uint64_t fileTime);

// Returns the earlier time (`first` if equal). If only one of them is valid, returns that one.
CalendarTime EarlierOf(const CalendarTime& first, const CalendarTime& second);

// Returns the date at the front of a raw SYSTEMTIME, or all zeros if there are too few bytes.
CalendarTime DateOfTimeStamp(std::span<const std::byte> bytes);

enum class BODFormat : std::uint8_t {
  Invalid = 0,
  SixDigits = 1,    // YYMMDD
  EightDigits = 2,  // YYYYMMDD
};

// Returns 6 for SixDigits, 8 otherwise.
std::size_t DigitCount(BODFormat format);

// A born-on date as text, and its format. Accepts any text, but only a valid date has a format.
class BornOnDate {
 public:
  // Returns whether a month has this day. `year` is as written: below 100 if it has two digits.
  using DayTest = bool (*)(int year, int day);

  // Each month's number and day test, ordered by month.
  static const std::array<std::pair<int, DayTest>, 12> validDaysOfMonths;

  BornOnDate() = default;
  explicit BornOnDate(std::string s) { init(std::move(s)); }

  void set(std::string s) { init(std::move(s)); }

  // Returns the text as set, valid or not.
  std::string get() const { return date; }

  BODFormat get_format() const { return format; }

  // Returns the date alone, or all zeros if it is invalid. Two-digit years mean 2000 to 2099.
  CalendarTime get_as_calendar_time() const;

  // Returns the same date as a SYSTEMTIME. Windows builds only.
  _SYSTEMTIME get_as_system_time() const;

  // Returns whether `s` is a valid date of six or eight digits. Four-digit years start at 1970.
  static bool is_valid_born_on_date(const std::string& s) noexcept;

 private:
  void init(std::string s);

  std::string date;
  BODFormat format = BODFormat::Invalid;
};

// Writes the digits of `day` in `format` to the front of `buffer`, without a terminator. With six
// digits, the year is written as 0 and its last digit. Throws std::invalid_argument if the buffer
// is too small.
void WriteDigits(std::span<std::uint8_t> buffer, BODFormat format, const CalendarTime& day);

// Returns whether `date` is a valid date in this format, or all zeros, which erase the date.
bool IsAssignable(const std::string& date, BODFormat format);

// Returns the text at the front of a firmware block: up to the first zero byte, or all of it.
std::string TextOfBlock(std::span<const std::uint8_t> block);

}  // namespace Vx::Tessel::Server::Services::Orvane
