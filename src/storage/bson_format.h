#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <span>
#include <string_view>

#include "storage/bson_value.h"

// Details of the BSON encoding, shared by the code that reads, splits and builds documents.
namespace Vx::Tessel::Server::Storage::Bson {

static_assert(std::endian::native == std::endian::little, "BSON is read in place");

inline constexpr std::size_t kLengthSize = 4;  // the length at the front of documents and strings
inline constexpr std::size_t kEmptyDocument = 5;  // the length and the terminator
inline constexpr std::size_t kMaxDocument = std::numeric_limits<std::int32_t>::max();
inline constexpr BsonKind kTerminator{0};

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

inline std::string_view Chars(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

inline std::span<const std::byte> AsBytes(std::string_view text) {
  return std::as_bytes(std::span(text));
}

// One member of a document.
struct Frame {
  BsonKind kind;
  std::span<const std::byte> key;  // without its terminator
  std::span<const std::byte> value;
};

// Finds the extent of the member at the front of `bytes`. Checks only that the kind is known, the
// key is terminated and the value fits in `bytes`. Returns nothing if any of this is false.
std::optional<Frame> FrameMember(std::span<const std::byte> bytes);

// Returns whether `encoded` is a whole document that can be split into members. Does not examine
// their values or the documents inside them.
bool IsDocument(std::span<const std::byte> encoded);

}  // namespace Vx::Tessel::Server::Storage::Bson
