#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace Vx::Tessel::Server::Services::Orvane {

// A date and time of day, UTC. The fields and their order are those of Windows' SYSTEMTIME, so that
// one converts to the other by copying its 16 bytes.
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

// 100-nanosecond units since 1601-01-01; the day of the week is not looked at. Nothing when the
// fields name no moment that this scale can hold (years 1601 to 30827).
std::optional<std::uint64_t> FileTimeOf(const CalendarTime& time);

// The moment `fileTime` units after 1601-01-01, cut to milliseconds.
CalendarTime CalendarTimeOf(std::uint64_t fileTime);

// The earlier of the two, `first` on a tie. A time that names no moment loses against one that
// does.
CalendarTime EarlierOf(const CalendarTime& first, const CalendarTime& second);

// The date at the front of the raw bytes of a SYSTEMTIME; its other fields are zero. All zero when
// the bytes are too few to be one. Bytes that follow are ignored.
CalendarTime DateOfTimeStamp(std::span<const std::byte> bytes);

}  // namespace Vx::Tessel::Server::Services::Orvane
