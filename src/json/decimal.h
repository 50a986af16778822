#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Vx::Json {

// Returns the number in decimal, with zeros in front up to `width` digits. With a width above 1 it
// must not be negative. The C library's formatting would bring that of floating point into the
// module.
std::string Decimal(std::int64_t number, std::size_t width = 1);
std::wstring WideDecimal(std::int64_t number, std::size_t width = 1);

}  // namespace Vx::Json
