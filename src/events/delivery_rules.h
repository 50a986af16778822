#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>

namespace Vx::Tessel::Server::Services::Orvane {

// The whole decimal number at the start of a client's text. Blanks and a sign may precede it, and
// anything may follow it. Empty when there is none or it does not fit an int.
std::optional<int> LeadingInteger(std::wstring_view text);

// Milliseconds between two tick counts as a delivery measures them: the absolute value of their
// difference in 32 bits.
std::int64_t ElapsedMilliseconds(std::uint64_t start, std::uint64_t now);

// The same when Modern Standby ended the wait. It is never so short that a delay of a few seconds
// counts as waited out.
std::int64_t ElapsedUntilStandby(std::uint64_t start, std::uint64_t now);

// Whether a delivery is so far from its time that it is dropped. A negative delay was not waited
// out.
bool IsOverdue(int delaySeconds, std::int64_t elapsedMilliseconds);

// Whether a delay is so long that a delivery is dropped after exactly that time, which is measured
// in 32 bits.
bool IsTooLong(int delaySeconds);

// The delay in the clock's unit. Any int of seconds fits.
constexpr std::chrono::milliseconds DelayLength(int delaySeconds) {
  return std::chrono::milliseconds(std::int64_t{delaySeconds} * 1000);
}

}  // namespace Vx::Tessel::Server::Services::Orvane
