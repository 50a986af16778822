#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <utility>

#include "bod/calendar_time.h"

// The struct tag of SYSTEMTIME, which can be declared without <windows.h>.
struct _SYSTEMTIME;  // NOLINT(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace Vx::Tessel::Server::Services::Orvane {

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
  explicit BornOnDate(std::string s);

  void set(std::string s);

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
