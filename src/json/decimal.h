#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Vx::Json {

// Returns the number in decimal, padded with zeros to `width` digits. A width above 1 requires a
// nonnegative number. Avoids the C library's formatting, which would pull in its floating-point
// code.
std::string Decimal(std::int64_t number, std::size_t width = 1);
std::wstring WideDecimal(std::int64_t number, std::size_t width = 1);

}  // namespace Vx::Json
