#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

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

}  // namespace Vx::Tessel::Server::Services::Orvane
