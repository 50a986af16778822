#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <span>
#include <string_view>

// The parts of the BSON encoding that reading, checking and building share.
namespace Vx::Tessel::Server::Storage::Bson {

static_assert(std::endian::native == std::endian::little, "BSON is read in place");

inline constexpr std::size_t kLengthSize = 4;  // the length at the front of documents and strings
inline constexpr std::size_t kEmptyDocument = 5;  // the length and the terminator
inline constexpr std::size_t kMaxDocument = std::numeric_limits<std::int32_t>::max();
inline constexpr std::size_t kBinaryHead = 5;  // the length and the subtype
inline constexpr std::byte kOldBinary{2};      // the subtype that repeats the length inside
inline constexpr std::size_t kObjectIdSize = 12;
inline constexpr std::uint64_t kLowBits = 0x0101010101010101U;
inline constexpr std::uint64_t kHighBits = 0x8080808080808080U;

template <typename T>
T Load(const std::byte* at) {
  T value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

template <typename T>
void Store(std::byte* at, T value) {
  std::memcpy(at, &value, sizeof value);
}

inline std::string_view Chars(const std::byte* begin, std::size_t size) {
  return {reinterpret_cast<const char*>(begin), size};
}

inline std::span<const std::byte> AsBytes(std::string_view text) {
  return std::as_bytes(std::span(text));
}

// Eight bytes of which the lowest that is zero, if any, has its top bit set in the answer.
constexpr std::uint64_t ZeroBytes(std::uint64_t word) {
  return (word - kLowBits) & ~word & kHighBits;
}

// Whether `encoded` is one whole document. Checked once from front to back, believing nothing
// before: every length, terminator, kind, boolean, key and string at every level. Nesting is
// followed without recursion. Throws std::bad_alloc.
bool IsDocument(std::span<const std::byte> encoded);

}  // namespace Vx::Tessel::Server::Storage::Bson
