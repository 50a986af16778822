#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <utility>

#include "bod/calendar_time.h"

// Windows' SYSTEMTIME under the only name that can be declared ahead of its header.
struct _SYSTEMTIME;  // NOLINT(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace Vx::Tessel::Server::Services::Orvane {

enum class BODFormat : std::uint8_t {
  Invalid = 0,
  SixDigits = 1,    // YYMMDD
  EightDigits = 2,  // YYYYMMDD
};

// Digits of a date in `format`: 6, or 8 for everything else.
std::size_t DigitCount(BODFormat format);

// A born-on date as text and what the text is worth. Any text can be held; only a valid one has a
// format.
class BornOnDate {
 public:
  // Whether a month of `year` has this day. The year is the number as written, so that two digits
  // make a year below 100.
  using DayTest = bool (*)(int year, int day);

  // Month number and its day test, ordered by month.
  static const std::array<std::pair<int, DayTest>, 12> validDaysOfMonths;

  BornOnDate() = default;
  explicit BornOnDate(std::string s);

  void set(std::string s);

  // The text as it was set, valid or not.
  std::string get() const { return date; }

  BODFormat get_format() const { return format; }

  // The date with every other field zero, all zero when it is not valid. A year of two digits is
  // one of 2000 to 2099.
  CalendarTime get_as_calendar_time() const;

  // The same as Windows has it. Only in builds for Windows.
  _SYSTEMTIME get_as_system_time() const;

  // Six or eight decimal digits that name a day; four-digit years start at 1970.
  static bool is_valid_born_on_date(const std::string& s) noexcept;

 private:
  void init(std::string s);

  std::string date;
  BODFormat format = BODFormat::Invalid;
};

// Writes the digits of `day` in `format` to the front of `buffer`, without a terminator. Six digits
// carry 0 and the last digit of the year. Throws std::invalid_argument when the buffer is too
// small.
void WriteDigits(std::span<std::uint8_t> buffer, BODFormat format, const CalendarTime& day);

// Whether firmware of `format` may be given `date`: a valid date of just its length, or as many
// zeros, which erase what is there.
bool IsAssignable(const std::string& date, BODFormat format);

// The text at the front of a firmware block: up to the first zero byte, or all of it.
std::string TextOfBlock(std::span<const std::uint8_t> block);

}  // namespace Vx::Tessel::Server::Services::Orvane
