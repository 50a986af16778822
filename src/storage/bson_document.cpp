#include "storage/bson_document.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string>

#include "json/utf8.h"
#include "storage/bson_format.h"

namespace Vx::Tessel::Server::Storage {

using namespace Bson;  // NOLINT(google-build-using-namespace): its own parts

namespace {

bool CanBeKey(std::string_view key) {
  return key.find('\0') == std::string_view::npos && Json::IsUtf8(key);
}

}  // namespace

BsonDocument::Member BsonDocument::Iterator::operator*() const {
  const Frame frame = FrameMember(rest).value();
  return {Chars(frame.key), {frame.kind, frame.value}};
}

std::span<const std::byte> BsonDocument::Iterator::Whole() const {
  const Frame frame = FrameMember(rest).value();
  const std::byte* const end = frame.value.data() + frame.value.size();
  return rest.first(static_cast<std::size_t>(end - rest.data()));
}

BsonDocument::Iterator& BsonDocument::Iterator::operator++() {
  rest = rest.subspan(Whole().size());
  return *this;
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

BsonDocument::Iterator BsonDocument::From(std::size_t offset) const {
  return Iterator(Encoded().subspan(offset, used - 1 - offset));
}

BsonDocument::Iterator BsonDocument::begin() const {
  return From(kLengthSize);
}

BsonDocument::Iterator BsonDocument::end() const {
  return From(used - 1);
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
  const std::string name(key);  // `key` may point into this document
  const Iterator found = FirstOf(name, begin());
  if (found == end()) return Append(name, value);
  const std::span<const std::byte> oldBytes = (*found).value.Bytes();
  const std::span<const std::byte> newBytes = value.View().Bytes();
  if (used - oldBytes.size() + newBytes.size() > kMaxDocument) return false;

  const auto at = static_cast<std::size_t>(found.rest.data() - bytes.get());
  const std::size_t behind = at + found.Whole().size() - oldBytes.size() + newBytes.size();
  Splice(oldBytes, newBytes);
  bytes.get()[at] = static_cast<std::byte>(value.Kind());  // the splice may have moved the bytes
  EraseFrom(behind, name);
  return true;
}

void BsonDocument::Erase(std::string_view key) {
  EraseFrom(kLengthSize, std::string(key));  // `key` may point into this document
}

// Works in one pass, because another writer of the store may repeat a key without limit.
void BsonDocument::EraseFrom(std::size_t offset, std::string_view key) {
  std::byte* kept = bytes.get() + offset;
  for (Iterator next = From(offset); !(next == end());) {
    const std::span<const std::byte> member = next.Whole();
    const bool goes = (*next).key == key;
    ++next;  // moves on before this member's bytes are overwritten
    if (goes) continue;
    if (kept != member.data()) std::memmove(kept, member.data(), member.size());
    kept += member.size();
  }
  *kept = std::byte{0};
  SetUsed(static_cast<std::size_t>(kept - bytes.get()) + 1);
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
