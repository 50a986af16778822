#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "bod/born_on_date.h"
#include "fuzz/fuzz_check.h"

// Fuzzes dates in the formats of the firmware, its callers and the registry.

namespace {

using Vx::Fuzz::Check;
using namespace Vx::Tessel::Server::Services::Orvane;

// Returns whether the C library's calendar has this day.
bool NamesADay(int year, int month, int day) {
  std::tm fields{};
  fields.tm_year = year - 1900;
  fields.tm_mon = month - 1;
  fields.tm_mday = day;
  const std::tm asked = fields;
  timegm(&fields);  // carries an excess day into the next month
  return fields.tm_year == asked.tm_year && fields.tm_mon == asked.tm_mon &&
         fields.tm_mday == asked.tm_mday;
}

bool Expected(const std::string& text) {
  if (text.size() != 6 && text.size() != 8) return false;
  if (text.find_first_not_of("0123456789") != std::string::npos) return false;
  const std::size_t digits = text.size() - 4;
  const int year = std::stoi(text.substr(0, digits));
  if (digits == 4 && year < 1970) return false;
  return NamesADay(digits == 4 ? year : 2000 + year, std::stoi(text.substr(digits, 2)),
                   std::stoi(text.substr(digits + 2)));
}

void CheckText(const std::string& text) {
  const BornOnDate date(text);
  const BODFormat format = date.get_format();
  Check(date.get() == text, "any text can be held");
  Check((format != BODFormat::Invalid) == Expected(text), "both calendars agree");
  const CalendarTime day = date.get_as_calendar_time();
  Check((day == CalendarTime{}) == (format == BODFormat::Invalid), "only a date has fields");
  Check(!FileTimeOf(day) == (format == BODFormat::Invalid), "every date is a moment");
  for (const BODFormat other : {BODFormat::SixDigits, BODFormat::EightDigits}) {
    const std::size_t digits = DigitCount(other);
    Check(IsAssignable(text, other) == (format == other || text == std::string(digits, '0')),
          "a date of its length or zeros");
  }
  if (format != BODFormat::EightDigits) return;
  std::vector<std::uint8_t> block(8);
  WriteDigits(block, format, day);
  Check(std::string(block.begin(), block.end()) == text, "digits come back");
}

void CheckTimes(std::span<const std::byte> bytes) {
  CalendarTime times[2];
  if (bytes.size() < sizeof times) return;
  std::memcpy(&times, bytes.data(), sizeof times);
  const auto first = FileTimeOf(times[0]);
  const auto second = FileTimeOf(times[1]);
  const CalendarTime earlier = EarlierOf(times[0], times[1]);
  const bool takesSecond = second && (!first || *second < *first);
  Check(earlier == times[takesSecond ? 1 : 0], "the earlier one wins");
  if (first) {
    CalendarTime again = CalendarTimeOf(*first);
    again.dayOfWeek = times[0].dayOfWeek;
    Check(again == times[0], "a moment has one date");
  }
  for (const BODFormat format : {BODFormat::SixDigits, BODFormat::EightDigits}) {
    std::vector<std::uint8_t> block(DigitCount(format));
    WriteDigits(block, format, times[0]);
    Check(std::all_of(block.begin(), block.end(), [](auto c) { return '0' <= c && c <= '9'; }),
          "nothing but digits");
  }
}

void CheckFileTime(std::span<const std::byte> bytes) {
  std::uint64_t fileTime = 0;
  if (bytes.size() < sizeof fileTime) return;
  std::memcpy(&fileTime, bytes.data(), sizeof fileTime);
  const CalendarTime time = CalendarTimeOf(fileTime);
  constexpr std::uint64_t kMillisecond = 10'000;
  const auto again = FileTimeOf(time);
  Check(!again || *again == fileTime - fileTime % kMillisecond, "a date is cut to milliseconds");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const auto bytes = std::as_bytes(std::span(data, size));
  CheckText(text);
  CheckTimes(bytes);
  CheckFileTime(bytes);
  const std::string front = TextOfBlock(std::span(data, size));
  Check(text.starts_with(front) && front.find('\0') == std::string::npos, "text ends at a zero");
  const CalendarTime day = DateOfTimeStamp(bytes);
  Check(size >= sizeof day || day == CalendarTime{}, "too few bytes are no date");
  return 0;
}
