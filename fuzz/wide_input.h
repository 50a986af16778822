#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Vx::Fuzz {

// Converts a fuzzer's bytes to UTF-16. ASCII is unchanged, so that seeds can be read and mutated as
// text. Other bytes map to code units around the surrogates.
inline std::wstring WideInput(const std::uint8_t* data, std::size_t size) {
  constexpr unsigned kFirst = 0xD7F0;
  constexpr unsigned kStep = 0x20;
  std::wstring text;
  text.reserve(size);
  for (std::size_t i = 0; i < size; ++i) {
    const unsigned byte = data[i];
    text.push_back(static_cast<wchar_t>(byte < 0x80 ? byte : kFirst + (byte - 0x80) * kStep));
  }
  return text;
}

}  // namespace Vx::Fuzz
