#include "storage/bson_document.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "json/utf8.h"
#include "storage/bson_format.h"

namespace Vx::Tessel::Server::Storage {

using namespace Bson;  // NOLINT(google-build-using-namespace): its own parts

namespace {

bool CanBeKey(std::string_view key) {
  return key.find('\0') == std::string_view::npos && Json::IsUtf8(key);
}

// The rest walks an encoding that has been checked.

constexpr BsonKind kTerminator{0};

const std::byte* AfterCString(const std::byte* at) {
  return at + std::strlen(reinterpret_cast<const char*>(at)) + 1;
}

std::size_t ValueSize(BsonKind kind, const std::byte* value) {
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
      return kLengthSize + Load<std::uint32_t>(value);
    case BsonKind::Pointer:
      return kLengthSize + Load<std::uint32_t>(value) + kObjectIdSize;
    case BsonKind::Binary:
      return kBinaryHead + Load<std::uint32_t>(value);
    case BsonKind::Document:
    case BsonKind::Array:
    case BsonKind::CodeWithScope:
      return Load<std::uint32_t>(value);
    case BsonKind::RegularExpression:
      return static_cast<std::size_t>(AfterCString(AfterCString(value)) - value);
  }
  return 0;
}

}  // namespace

BsonDocument::Iterator::Iterator(const std::byte* member) : place{member, member, member} {
  const auto kind = static_cast<BsonKind>(*member);
  if (kind == kTerminator) return;
  place.value = AfterCString(member + 1);
  place.end = place.value + ValueSize(kind, place.value);
}

BsonDocument::Member BsonDocument::Iterator::operator*() const {
  const std::byte* const key = place.begin + 1;
  return {Chars(key, static_cast<std::size_t>(place.value - key) - 1),
          {static_cast<BsonKind>(*place.begin), {place.value, place.end}}};
}

BsonDocument::Iterator& BsonDocument::Iterator::operator++() {
  return *this = Iterator(place.end);
}

BsonDocument::BsonDocument() {
  Reserve(kEmptyDocument);
  bytes.get()[kLengthSize] = std::byte{0};
  SetUsed(kEmptyDocument);
}

BsonDocument::BsonDocument(std::span<const std::byte> checked) {
  Reserve(checked.size());
  std::ranges::copy(checked, bytes.get());
  used = checked.size();
}

std::optional<BsonDocument> BsonDocument::Decode(std::span<const std::byte> encoded) {
  if (!IsDocument(encoded)) return std::nullopt;
  return BsonDocument(encoded);
}

BsonDocument::Iterator BsonDocument::begin() const {
  return Iterator(bytes.get() + kLengthSize);
}

BsonDocument::Iterator BsonDocument::end() const {
  return Iterator(bytes.get() + used - 1);
}

std::size_t BsonDocument::Size() const {
  std::size_t count = 0;
  for (Iterator i = begin(); !(i == end()); ++i) ++count;
  return count;
}

BsonDocument::Iterator BsonDocument::FirstOf(std::string_view key, Iterator from) const {
  while (!(from == end()) && (*from).key != key) ++from;
  return from;
}

std::optional<BsonView> BsonDocument::Find(std::string_view key) const {
  const Iterator found = FirstOf(key, begin());
  if (found == end()) return std::nullopt;
  return (*found).value;
}

bool BsonDocument::Set(std::string_view key, const BsonElement& value) {
  const std::string name(key);  // `key` may lie in this document
  const Iterator found = FirstOf(name, begin());
  if (found == end()) return Append(name, value);
  const std::span<const std::byte> oldBytes = (*found).value.Bytes();
  const std::span<const std::byte> newBytes = value.View().Bytes();
  if (used - oldBytes.size() + newBytes.size() > kMaxDocument) return false;

  const auto at = static_cast<std::size_t>(found.place.begin - bytes.get());
  Splice(oldBytes, newBytes);
  bytes.get()[at] = static_cast<std::byte>(value.Kind());  // the splice may have moved the bytes
  for (;;) {
    const Iterator other = FirstOf(name, Iterator(Iterator(bytes.get() + at).place.end));
    if (other == end()) return true;
    Splice({other.place.begin, other.place.end}, {});
  }
}

void BsonDocument::Erase(std::string_view key) {
  const std::string name(key);  // `key` may lie in this document
  std::size_t at = kLengthSize;
  for (;;) {
    const Iterator found = FirstOf(name, Iterator(bytes.get() + at));
    if (found == end()) return;
    at = static_cast<std::size_t>(found.place.begin - bytes.get());
    Splice({found.place.begin, found.place.end}, {});
  }
}

void BsonDocument::Splice(std::span<const std::byte> part, std::span<const std::byte> replacement) {
  const auto at = static_cast<std::size_t>(part.data() - bytes.get());
  const std::size_t rest = at + part.size();
  const std::size_t size = used - part.size() + replacement.size();
  Reserve(size);
  std::memmove(bytes.get() + at + replacement.size(), bytes.get() + rest, used - rest);
  std::ranges::copy(replacement, bytes.get() + at);
  SetUsed(size);
}

void BsonDocument::Reserve(std::size_t size) {
  constexpr std::size_t kLeastRoom = 128;
  if (size <= room) return;
  const std::size_t wanted = std::max({size, 2 * room, kLeastRoom});
  void* const grown = std::realloc(bytes.get(), wanted);
  if (grown == nullptr) throw std::bad_alloc();
  static_cast<void>(bytes.release());
  bytes.reset(static_cast<std::byte*>(grown));
  room = wanted;
}

void BsonDocument::SetUsed(std::size_t size) {
  used = size;
  Store(bytes.get(), static_cast<std::uint32_t>(size));
}

bool BsonDocument::Append(std::string_view key, const BsonElement& value) {
  const std::span<const std::byte> content = value.View().Bytes();
  if (!CanBeKey(key) || content.size() > kMaxDocument || key.size() > kMaxDocument) return false;
  const std::size_t begin = used - 1;
  const std::size_t end = begin + 1 + key.size() + 1 + content.size() + 1;
  if (end > kMaxDocument) return false;
  Reserve(end);
  std::byte* at = bytes.get() + begin;
  *at++ = static_cast<std::byte>(value.Kind());
  at = std::ranges::copy(AsBytes(key), at).out;
  *at++ = std::byte{0};
  at = std::ranges::copy(content, at).out;
  *at = std::byte{0};
  SetUsed(end);
  return true;
}

bool BsonDocument::operator==(const BsonDocument& other) const {
  return std::ranges::equal(Encoded(), other.Encoded());
}

}  // namespace Vx::Tessel::Server::Storage
