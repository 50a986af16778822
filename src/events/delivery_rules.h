#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>

namespace Vx::Tessel::Server::Services::Orvane {

// Returns the decimal integer at the start of a client's string, after optional white space and an
// optional sign. Ignores the rest. Returns nothing if there is none or it does not fit in an int.
std::optional<int> LeadingInteger(std::wstring_view text);

// Returns the milliseconds between two tick counts as a delivery measures them: the absolute value
// of their 32-bit difference.
std::int64_t ElapsedMilliseconds(std::uint64_t start, std::uint64_t now);

// Like ElapsedMilliseconds, for a wait that Modern Standby ended. Returns at least 2001, so that a
// delay of up to four seconds is not overdue.
std::int64_t ElapsedUntilStandby(std::uint64_t start, std::uint64_t now);

// Returns whether a delivery is dropped because it is more than two seconds early or late. A zero
// delay is never overdue. Negative delays are checked too, although they cause no wait.
bool IsOverdue(int delaySeconds, std::int64_t elapsedMilliseconds);

// Returns whether a delivery with this delay would be overdue even if it ran exactly on time,
// because the elapsed time is measured in 32 bits.
bool IsTooLong(int delaySeconds);

// Converts a delay to milliseconds. Cannot overflow.
constexpr std::chrono::milliseconds DelayLength(int delaySeconds) {
  return std::chrono::milliseconds(std::int64_t{delaySeconds} * 1000);
}

}  // namespace Vx::Tessel::Server::Services::Orvane
