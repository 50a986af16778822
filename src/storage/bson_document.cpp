#include "storage/bson_document.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <new>

#include "json/utf8.h"

namespace Vx::Tessel::Server::Storage {

namespace {

static_assert(std::endian::native == std::endian::little, "BSON is read in place");

constexpr std::size_t kLengthSize = 4;     // the length at the front of documents and strings
constexpr std::size_t kEmptyDocument = 5;  // the length and the terminator
constexpr std::size_t kMaxDocument = std::numeric_limits<std::int32_t>::max();
constexpr std::size_t kSubtypeSize = 1;  // between a binary's length and its bytes
constexpr std::size_t kObjectIdSize = 12;

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

std::string_view Chars(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

std::span<const std::byte> AsBytes(std::string_view text) {
  return std::as_bytes(std::span(text));
}

// Returns the length field at the front of `bytes` plus `extra`.
std::optional<std::size_t> WithLength(std::span<const std::byte> bytes, std::size_t extra) {
  if (bytes.size() < kLengthSize) return std::nullopt;
  return std::size_t{Load<std::uint32_t>(bytes.data())} + extra;
}

// Returns the size of a value whose length includes the length field itself.
std::optional<std::size_t> WholeLength(std::span<const std::byte> bytes) {
  const std::optional<std::size_t> length = WithLength(bytes, 0);
  return length && *length >= kLengthSize ? length : std::nullopt;
}

// Returns the size of the C string at the front of `bytes`, including its terminator. Keys are
// short, so testing eight bytes at once is faster than memchr, which is optimized for long strings.
std::optional<std::size_t> CStringSize(std::span<const std::byte> bytes) {
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

std::optional<std::size_t> TwoCStringsSize(std::span<const std::byte> bytes) {
  const std::optional<std::size_t> first = CStringSize(bytes);
  const auto second = first ? CStringSize(bytes.subspan(*first)) : std::nullopt;
  return second ? std::optional(*first + *second) : std::nullopt;
}

// Returns the size that the value of `kind` at the front of `bytes` claims. It may exceed `bytes`.
std::optional<std::size_t> ValueSize(BsonKind kind, std::span<const std::byte> bytes) {
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

// One member of a document.
struct Frame {
  BsonKind kind;
  std::span<const std::byte> key;  // without its terminator
  std::span<const std::byte> value;
  std::span<const std::byte> whole;
};

// Finds the extent of the member at the front of `bytes`. Checks only that the kind is known, the
// key is terminated and the value fits in `bytes`. Returns nothing if any of this is false.
std::optional<Frame> FrameMember(std::span<const std::byte> bytes) {
  if (bytes.empty()) return std::nullopt;
  const auto kind = static_cast<BsonKind>(bytes.front());
  const auto key = bytes.subspan(1);
  const std::optional<std::size_t> keySize = CStringSize(key);
  if (!keySize) return std::nullopt;
  const auto rest = key.subspan(*keySize);
  const std::optional<std::size_t> size = ValueSize(kind, rest);
  if (!size || *size > rest.size()) return std::nullopt;
  return Frame{kind, key.first(*keySize - 1), rest.first(*size), bytes.first(1 + *keySize + *size)};
}

template <typename T>
std::optional<T> Fixed(BsonKind kind, BsonKind wanted, std::span<const std::byte> bytes) {
  if (kind != wanted || bytes.size() != sizeof(T)) return std::nullopt;
  return Load<T>(bytes.data());
}

template <typename T>
std::vector<std::byte> Owned(T value) {
  std::vector<std::byte> bytes(sizeof value);
  Store(bytes.data(), value);
  return bytes;
}

}  // namespace

std::optional<double> BsonView::AsDouble() const {
  return Fixed<double>(kind, BsonKind::Double, bytes);
}

std::optional<std::string_view> BsonView::AsText() const {
  if (kind != BsonKind::String || bytes.size() <= kLengthSize) return std::nullopt;
  if (bytes.back() != std::byte{0}) return std::nullopt;
  const std::string_view text = Chars(bytes.subspan(kLengthSize, bytes.size() - kLengthSize - 1));
  if (!Json::IsUtf8(text)) return std::nullopt;
  return text;
}

std::optional<std::wstring> BsonView::AsWideText() const {
  const std::optional<std::string_view> text = AsText();
  if (!text) return std::nullopt;
  return Json::ToWide(*text);
}

std::optional<bool> BsonView::AsBoolean() const {
  const auto byte = Fixed<std::uint8_t>(kind, BsonKind::Boolean, bytes);
  if (!byte || *byte > 1) return std::nullopt;
  return *byte == 1;
}

std::optional<std::int32_t> BsonView::AsInt32() const {
  return Fixed<std::int32_t>(kind, BsonKind::Int32, bytes);
}

std::optional<std::int64_t> BsonView::AsInt64() const {
  return Fixed<std::int64_t>(kind, BsonKind::Int64, bytes);
}

std::optional<BsonDocument> BsonView::AsDocument() const {
  if (kind != BsonKind::Document) return std::nullopt;
  return BsonDocument::Decode(bytes);
}

bool BsonView::operator==(const BsonView& other) const {
  return kind == other.kind && std::ranges::equal(bytes, other.bytes);
}

BsonElement::BsonElement(const BsonView& view)
    : kind(view.Kind()), bytes(view.Bytes().begin(), view.Bytes().end()) {}

BsonElement::BsonElement(const BsonDocument& document)
    : kind(BsonKind::Document), bytes(document.Encoded().begin(), document.Encoded().end()) {}

BsonElement BsonElement::Text(std::string_view utf8) {
  if (!Json::IsUtf8(utf8)) return Text(Json::ToWide(utf8));
  std::vector<std::byte> value = Owned(static_cast<std::uint32_t>(utf8.size() + 1));
  value.reserve(kLengthSize + utf8.size() + 1);
  value.insert(value.end(), AsBytes(utf8).begin(), AsBytes(utf8).end());
  value.push_back(std::byte{0});
  return {BsonKind::String, std::move(value)};
}

BsonElement BsonElement::Text(std::wstring_view utf16) {
  return Text(Json::ToUtf8(utf16));
}

BsonElement BsonElement::Boolean(bool value) {
  return {BsonKind::Boolean, Owned(static_cast<std::uint8_t>(value))};
}

BsonElement BsonElement::Int32(std::int32_t value) {
  return {BsonKind::Int32, Owned(value)};
}

BsonElement BsonElement::Int64(std::int64_t value) {
  return {BsonKind::Int64, Owned(value)};
}

BsonDocument::Member BsonDocument::Iterator::operator*() const {
  const Frame frame = FrameMember(rest).value();
  return {Chars(frame.key), {frame.kind, frame.value}};
}

std::span<const std::byte> BsonDocument::Iterator::Whole() const {
  return FrameMember(rest).value().whole;
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
  if (encoded.size() < kEmptyDocument || encoded.size() > kMaxDocument) return std::nullopt;
  if (Load<std::uint32_t>(encoded.data()) != encoded.size()) return std::nullopt;
  if (encoded.back() != std::byte{0}) return std::nullopt;
  auto members = encoded.subspan(kLengthSize, encoded.size() - kEmptyDocument);
  while (!members.empty()) {
    const std::optional<Frame> member = FrameMember(members);
    if (!member) return std::nullopt;
    members = members.subspan(member->whole.size());
  }
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

BsonDocument::Iterator BsonDocument::FirstOf(std::string_view key) const {
  Iterator member = begin();
  while (!(member == end()) && (*member).key != key) ++member;
  return member;
}

std::optional<BsonView> BsonDocument::Find(std::string_view key) const {
  const Iterator found = FirstOf(key);
  if (found == end()) return std::nullopt;
  return (*found).value;
}

bool BsonDocument::Set(std::string_view key, const BsonElement& value) {
  const std::string name(key);  // `key` may point into this document
  const Iterator found = FirstOf(name);
  if (found == end()) return Append(name, value);
  const std::span<const std::byte> oldBytes = (*found).value.Bytes();
  const std::span<const std::byte> newBytes = value.View().Bytes();
  if (used - oldBytes.size() + newBytes.size() > kMaxDocument) return false;

  const auto at = static_cast<std::size_t>(found.rest.data() - bytes.get());
  const std::size_t behind = at + found.Whole().size() - oldBytes.size() + newBytes.size();
  Splice(oldBytes, newBytes);
  // The splice may have moved the bytes.
  bytes.get()[at] = static_cast<std::byte>(value.View().Kind());
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
  if (key.find('\0') != std::string_view::npos || !Json::IsUtf8(key)) return false;
  if (content.size() > kMaxDocument || key.size() > kMaxDocument) return false;
  const std::size_t begin = used - 1;
  const std::size_t end = begin + 1 + key.size() + 1 + content.size() + 1;
  if (end > kMaxDocument) return false;
  Reserve(end);
  std::byte* at = bytes.get() + begin;
  *at++ = static_cast<std::byte>(value.View().Kind());
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
