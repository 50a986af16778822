#include "json/decimal.h"

#include <algorithm>
#include <charconv>
#include <iterator>

namespace Vx::Json {

std::string Decimal(std::int64_t number, std::size_t width) {
  char digits[24];
  char* const end = std::to_chars(std::begin(digits), std::end(digits), number).ptr;
  const auto count = static_cast<std::size_t>(end - digits);
  return std::string(width - std::min(width, count), '0').append(digits, count);
}

std::wstring WideDecimal(std::int64_t number, std::size_t width) {
  const std::string digits = Decimal(number, width);
  return {digits.begin(), digits.end()};
}

}  // namespace Vx::Json
