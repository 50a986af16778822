#include "events/delivery_rules.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <limits>
#include <utility>

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr std::int64_t kTolerance = 2000;       // milliseconds
constexpr std::int64_t kStandbyElapsed = 2001;  // milliseconds
constexpr std::wstring_view kBlanks = L" \t\n\v\f\r";

constexpr bool IsDigit(wchar_t c) {
  return c >= L'0' && c <= L'9';
}

}  // namespace

std::optional<int> LeadingInteger(std::wstring_view text) {
  // One more than the magnitude of the smallest int, so that any larger number stays out of range.
  constexpr std::int64_t kLimit = std::int64_t{std::numeric_limits<int>::max()} + 2;

  std::size_t at = std::min(text.find_first_not_of(kBlanks), text.size());
  const bool negative = at < text.size() && text[at] == L'-';
  if (negative || (at < text.size() && text[at] == L'+')) ++at;
  if (at == text.size() || !IsDigit(text[at])) return std::nullopt;

  std::int64_t magnitude = 0;
  for (; at < text.size() && IsDigit(text[at]); ++at) {
    magnitude = std::min(magnitude * 10 + (text[at] - L'0'), kLimit);
  }
  const std::int64_t value = negative ? -magnitude : magnitude;
  if (!std::in_range<int>(value)) return std::nullopt;
  return static_cast<int>(value);
}

std::int64_t ElapsedMilliseconds(std::uint64_t start, std::uint64_t now) {
  // In 64 bits, because the magnitude of the smallest difference does not fit in 32.
  return std::abs(std::int64_t{static_cast<std::int32_t>(now - start)});
}

std::int64_t ElapsedUntilStandby(std::uint64_t start, std::uint64_t now) {
  return std::max(ElapsedMilliseconds(start, now), kStandbyElapsed);
}

bool IsTooLong(int delaySeconds) {
  const auto length = static_cast<std::uint64_t>(DelayLength(delaySeconds).count());
  return delaySeconds > 0 && IsOverdue(delaySeconds, ElapsedMilliseconds(0, length));
}

bool IsOverdue(int delaySeconds, std::int64_t elapsedMilliseconds) {
  if (delaySeconds == 0) return false;
  return std::abs(DelayLength(delaySeconds).count() - elapsedMilliseconds) > kTolerance;
}

}  // namespace Vx::Tessel::Server::Services::Orvane
