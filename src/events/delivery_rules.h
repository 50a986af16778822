#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>

namespace Vx::Tessel::Server::Services::Orvane {

// The whole leading decimal number of a text in a client's own words: blanks and a sign may come
// first, anything may follow. Empty when there is none or it does not fit an int.
std::optional<int> LeadingInteger(std::wstring_view text);

// Milliseconds between two tick counts as a delivery measures them: the absolute value of their
// difference in 32 bits.
std::int64_t ElapsedMilliseconds(std::uint64_t start, std::uint64_t now);

// The same when Modern Standby ended the wait: never so short that a delay of a few seconds passes
// for one that was waited out.
std::int64_t ElapsedUntilStandby(std::uint64_t start, std::uint64_t now);

// Whether a delivery comes so far from its time that it is dropped. A negative delay counts as one
// that was not waited for.
bool IsOverdue(int delaySeconds, std::int64_t elapsedMilliseconds);

// The delay in the clock's unit; any int of seconds fits.
constexpr std::chrono::milliseconds DelayLength(int delaySeconds) {
  return std::chrono::milliseconds(std::int64_t{delaySeconds} * 1000);
}

}  // namespace Vx::Tessel::Server::Services::Orvane
