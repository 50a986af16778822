#include "json/json_reader.h"

#include <algorithm>
#include <charconv>
#include <limits>

namespace Vx::Json {

namespace {

bool IsDigit(wchar_t c) {
  return c >= L'0' && c <= L'9';
}

// The digits of a whole number as 64 bits, or nothing when they do not fit.
std::optional<std::uint64_t> Magnitude(std::wstring_view digits) {
  std::uint64_t value = 0;
  for (const wchar_t c : digits) {
    const auto digit = static_cast<std::uint64_t>(c - L'0');
    if (value > (std::numeric_limits<std::uint64_t>::max() - digit) / 10) return std::nullopt;
    value = value * 10 + digit;
  }
  return value;
}

// Whether a number that no double can hold is so because it is too small: its first digit other
// than zero stands, the exponent counted in, behind the decimal point.
bool IsTooSmall(std::wstring_view spelling) {
  constexpr std::int64_t kClamp = std::int64_t{1} << 40;  // beyond any text's length
  const std::size_t exponentAt = spelling.find_first_of(L"eE");
  std::int64_t exponent = 0;
  if (exponentAt != std::wstring_view::npos) {
    for (const wchar_t c : spelling.substr(exponentAt + 1)) {
      if (IsDigit(c) && exponent < kClamp) exponent = exponent * 10 + (c - L'0');
    }
    if (spelling[exponentAt + 1] == L'-') exponent = -exponent;
  }
  const std::wstring_view mantissa = spelling.substr(0, exponentAt);
  const std::size_t first = mantissa.find_first_of(L"123456789");
  if (first == std::wstring_view::npos) return true;
  const std::size_t point = std::min(mantissa.find(L'.'), mantissa.size());
  return static_cast<std::int64_t>(point) - static_cast<std::int64_t>(first) + exponent <= 0;
}

std::optional<double> Double(std::wstring_view spelling) {
  std::string narrow(spelling.size(), '\0');
  std::transform(spelling.begin(), spelling.end(), narrow.begin(),
                 [](wchar_t c) { return static_cast<char>(c); });
  double value = 0;
  const auto result = std::from_chars(narrow.data(), narrow.data() + narrow.size(), value);
  if (result.ec == std::errc()) return value;
  if (IsTooSmall(spelling)) return narrow.front() == '-' ? -0.0 : 0.0;
  return std::nullopt;
}

}  // namespace

std::optional<NumberVariant> NumberOf(std::wstring_view spelling) {
  const bool negative = spelling.front() == L'-';
  const std::wstring_view digits = spelling.substr(negative ? 1 : 0);
  if (std::all_of(digits.begin(), digits.end(), IsDigit)) {
    constexpr std::uint64_t kMostNegative = std::uint64_t{1} << 63;
    const std::optional<std::uint64_t> magnitude = Magnitude(digits);
    if (magnitude && !negative) return NumberVariant(*magnitude);
    if (magnitude && *magnitude <= kMostNegative) {
      return NumberVariant(static_cast<std::int64_t>(0 - *magnitude));
    }
  }
  const std::optional<double> value = Double(spelling);
  if (!value) return std::nullopt;
  return NumberVariant(*value);
}

void Unescape(std::wstring_view spelling, std::wstring& out) {
  out.clear();
  out.reserve(spelling.size());
  for (std::size_t i = 0; i < spelling.size(); ++i) {
    if (spelling[i] != L'\\') {
      out.push_back(spelling[i]);
      continue;
    }
    const wchar_t kind = spelling[++i];
    constexpr std::wstring_view kNames = L"bfnrt";
    constexpr std::wstring_view kMeanings = L"\b\f\n\r\t";
    if (const std::size_t at = kNames.find(kind); at != std::wstring_view::npos) {
      out.push_back(kMeanings[at]);
    } else if (kind != L'u') {
      out.push_back(kind);
    } else {
      unsigned unit = 0;
      for (int digit = 0; digit < 4; ++digit) {
        const wchar_t c = spelling[++i];
        unit = unit * 16 + static_cast<unsigned>(IsDigit(c) ? c - L'0' : (c | 0x20) - L'a' + 10);
      }
      out.push_back(static_cast<wchar_t>(unit));
    }
  }
}

}  // namespace Vx::Json
