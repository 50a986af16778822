#include "storage/bson_format.h"

namespace Vx::Tessel::Server::Storage::Bson {

namespace {

using Bytes = std::span<const std::byte>;

constexpr std::size_t kSubtypeSize = 1;  // between a binary's length and its bytes
constexpr std::size_t kObjectIdSize = 12;

// Returns the length field at the front of `bytes` plus `extra`.
std::optional<std::size_t> WithLength(Bytes bytes, std::size_t extra) {
  if (bytes.size() < kLengthSize) return std::nullopt;
  return std::size_t{Load<std::uint32_t>(bytes.data())} + extra;
}

// Returns the size of a value whose length includes the length field itself.
std::optional<std::size_t> WholeLength(Bytes bytes) {
  const std::optional<std::size_t> length = WithLength(bytes, 0);
  return length && *length >= kLengthSize ? length : std::nullopt;
}

// Returns the size of the C string at the front of `bytes`, including its terminator. Keys are
// short, so testing eight bytes at once is faster than memchr, which is optimized for long strings.
std::optional<std::size_t> CStringSize(Bytes bytes) {
  constexpr std::uint64_t kOnes = 0x0101010101010101;
  constexpr std::uint64_t kTops = 0x8080808080808080;
  std::size_t at = 0;
  for (; bytes.size() - at >= sizeof(std::uint64_t); at += sizeof(std::uint64_t)) {
    const auto eight = Load<std::uint64_t>(bytes.data() + at);
    // The lowest set bit marks the first zero byte. Bits above it may be wrong.
    const std::uint64_t zeros = (eight - kOnes) & ~eight & kTops;
    if (zeros != 0) return at + static_cast<std::size_t>(std::countr_zero(zeros)) / 8 + 1;
  }
  for (; at < bytes.size(); ++at) {
    if (bytes[at] == std::byte{0}) return at + 1;
  }
  return std::nullopt;
}

std::optional<std::size_t> TwoCStringsSize(Bytes bytes) {
  const std::optional<std::size_t> first = CStringSize(bytes);
  if (!first) return std::nullopt;
  const std::optional<std::size_t> second = CStringSize(bytes.subspan(*first));
  if (!second) return std::nullopt;
  return *first + *second;
}

// Returns the size that the value of `kind` at the front of `bytes` claims. It may exceed `bytes`.
std::optional<std::size_t> ValueSize(BsonKind kind, Bytes bytes) {
  switch (kind) {
    case BsonKind::Undefined:
    case BsonKind::Null:
    case BsonKind::MaxKey:
    case BsonKind::MinKey:
      return 0;
    case BsonKind::Boolean:
      return 1;
    case BsonKind::Int32:
      return 4;
    case BsonKind::Double:
    case BsonKind::DateTime:
    case BsonKind::Timestamp:
    case BsonKind::Int64:
      return 8;
    case BsonKind::ObjectId:
      return kObjectIdSize;
    case BsonKind::Decimal128:
      return 16;
    case BsonKind::String:
    case BsonKind::Code:
    case BsonKind::Symbol:
      return WithLength(bytes, kLengthSize);
    case BsonKind::Pointer:
      return WithLength(bytes, kLengthSize + kObjectIdSize);
    case BsonKind::Binary:
      return WithLength(bytes, kLengthSize + kSubtypeSize);
    case BsonKind::Document:
    case BsonKind::Array:
    case BsonKind::CodeWithScope:
      return WholeLength(bytes);
    case BsonKind::RegularExpression:
      return TwoCStringsSize(bytes);
  }
  return std::nullopt;
}

}  // namespace

std::optional<Frame> FrameMember(Bytes bytes) {
  if (bytes.empty()) return std::nullopt;
  const auto kind = static_cast<BsonKind>(bytes.front());
  const Bytes behindKind = bytes.subspan(1);
  const std::optional<std::size_t> keySize = CStringSize(behindKind);
  if (!keySize) return std::nullopt;
  const Bytes rest = behindKind.subspan(*keySize);
  const std::optional<std::size_t> valueSize = ValueSize(kind, rest);
  if (!valueSize || *valueSize > rest.size()) return std::nullopt;
  return Frame{kind, behindKind.first(*keySize - 1), rest.first(*valueSize)};
}

bool IsDocument(Bytes encoded) {
  if (encoded.size() < kEmptyDocument || encoded.size() > kMaxDocument) return false;
  if (Load<std::uint32_t>(encoded.data()) != encoded.size()) return false;
  if (static_cast<BsonKind>(encoded.back()) != kTerminator) return false;
  Bytes members = encoded.subspan(kLengthSize, encoded.size() - kEmptyDocument);
  while (!members.empty()) {
    const std::optional<Frame> member = FrameMember(members);
    if (!member) return false;
    const auto* const end = member->value.data() + member->value.size();
    members = members.subspan(static_cast<std::size_t>(end - members.data()));
  }
  return true;
}

}  // namespace Vx::Tessel::Server::Storage::Bson
