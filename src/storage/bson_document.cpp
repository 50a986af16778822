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
constexpr std::size_t kBinaryHead = 5;  // the length and the subtype
constexpr std::byte kGenericBinary{0};
constexpr std::byte kOldBinary{2};  // the subtype that repeats the length inside
constexpr std::size_t kObjectIdSize = 12;
constexpr std::uint64_t kLowBits = 0x0101010101010101U;
constexpr std::uint64_t kHighBits = 0x8080808080808080U;

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

std::string_view Chars(const std::byte* begin, std::size_t size) {
  return {reinterpret_cast<const char*>(begin), size};
}

std::span<const std::byte> AsBytes(std::string_view text) {
  return std::as_bytes(std::span(text));
}

// Eight bytes of which the lowest that is zero, if any, has its top bit set in the answer.
std::uint64_t ZeroBytes(std::uint64_t word) {
  return (word - kLowBits) & ~word & kHighBits;
}

// Copies `text` and answers whether it is plain ASCII without U+0000, as most keys are.
bool CopyPlain(std::string_view text, std::byte* out) {
  const auto odd = [](std::uint64_t word) { return ZeroBytes(word) | (word & kHighBits); };
  constexpr std::size_t kWord = sizeof(std::uint64_t);
  constexpr std::size_t kHalf = sizeof(std::uint32_t);
  const auto* const in = reinterpret_cast<const std::byte*>(text.data());
  const std::size_t size = text.size();
  std::uint64_t found = 0;
  if (size >= kWord) {
    // The last word overlaps the one before it.
    for (std::size_t i = 0;; i += kWord) {
      const std::size_t at = std::min(i, size - kWord);
      const auto word = Load<std::uint64_t>(in + at);
      Store(out + at, word);
      found |= odd(word);
      if (at + kWord == size) return found == 0;
    }
  }
  if (size >= kHalf) {
    const auto first = Load<std::uint32_t>(in);
    const auto last = Load<std::uint32_t>(in + size - kHalf);
    Store(out, first);
    Store(out + size - kHalf, last);
    return odd(std::uint64_t{last} << 32U | first) == 0;
  }
  for (std::size_t i = 0; i < size; ++i) {
    out[i] = in[i];
    found |= static_cast<std::uint64_t>(in[i] == std::byte{0} || in[i] >= std::byte{0x80});
  }
  return found == 0;
}

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

std::optional<double> BsonView::AsDouble() const {
  return Fixed<double>(kind, BsonKind::Double, bytes);
}

std::optional<std::string_view> BsonView::AsText() const {
  if (kind != BsonKind::String || bytes.size() <= kLengthSize) return std::nullopt;
  return Chars(bytes.data() + kLengthSize, bytes.size() - kLengthSize - 1);
}

std::optional<std::wstring> BsonView::AsWideText() const {
  const std::optional<std::string_view> text = AsText();
  if (!text) return std::nullopt;
  return Json::ToWide(*text);
}

std::optional<bool> BsonView::AsBoolean() const {
  if (kind != BsonKind::Boolean || bytes.size() != 1) return std::nullopt;
  return bytes[0] != std::byte{0};
}

std::optional<std::int32_t> BsonView::AsInt32() const {
  return Fixed<std::int32_t>(kind, BsonKind::Int32, bytes);
}

std::optional<std::int64_t> BsonView::AsInt64() const {
  return Fixed<std::int64_t>(kind, BsonKind::Int64, bytes);
}

std::optional<std::span<const std::byte>> BsonView::AsBinary() const {
  if (kind != BsonKind::Binary || bytes.size() < kBinaryHead) return std::nullopt;
  const bool old = bytes[kLengthSize] == kOldBinary;
  return bytes.subspan(old ? kBinaryHead + kLengthSize : kBinaryHead);
}

std::optional<BsonDocument> BsonView::AsDocument() const {
  if (kind != BsonKind::Document) return std::nullopt;
  return BsonDocument(bytes);
}

bool BsonView::operator==(const BsonView& other) const {
  return kind == other.kind && std::ranges::equal(bytes, other.bytes);
}

BsonElement::BsonElement(const BsonView& view)
    : kind(view.Kind()), bytes(view.Bytes().begin(), view.Bytes().end()) {}

BsonElement::BsonElement(const BsonDocument& document)
    : kind(BsonKind::Document), bytes(document.Encoded().begin(), document.Encoded().end()) {}

BsonElement BsonElement::Double(double value) {
  return {BsonKind::Double, Owned(value)};
}

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

BsonElement BsonElement::Binary(std::span<const std::byte> value) {
  std::vector<std::byte> bytes = Owned(static_cast<std::uint32_t>(value.size()));
  bytes.push_back(std::byte{0});
  bytes.insert(bytes.end(), value.begin(), value.end());
  return {BsonKind::Binary, std::move(bytes)};
}

std::optional<BsonDocument> BsonElement::AsDocument() const {
  return View().AsDocument();
}

// Checks an encoding once from front to back and believes nothing before. What a container holds
// lies in the same bytes, so its end is all that is kept while its content is walked.
class BsonDocument::Decoder {
 public:
  explicit Decoder(std::span<const std::byte> encoded)
      : base(encoded.data()), size(encoded.size()) {}

  bool Run() {
    if (size > kMaxDocument || !OpenDocument(size) || end != size) return false;
    for (;;) {
      if (at == end - 1) {
        if (base[at] != std::byte{0}) return false;
        ++at;
        if (outer.empty()) return true;
        end = outer.back();
        outer.pop_back();
      } else if (!Member()) {
        return false;
      }
    }
  }

 private:
  // The bytes that may still be used inside the current document; its terminator is not.
  std::size_t Left() const { return end - 1 - at; }

  // Enters the document at `at`, which must end at or before `bound`.
  bool OpenDocument(std::size_t bound) {
    if (bound - at < kEmptyDocument) return false;
    const auto length = Load<std::uint32_t>(base + at);
    if (length < kEmptyDocument || length > bound - at) return false;
    end = at + length;
    at += kLengthSize;
    return true;
  }

  bool Member() {
    const auto kind = static_cast<BsonKind>(base[at++]);
    return SkipKey() && Value(kind);
  }

  bool Value(BsonKind kind) {
    switch (kind) {
      case BsonKind::Undefined:
      case BsonKind::Null:
      case BsonKind::MaxKey:
      case BsonKind::MinKey:
        return true;
      case BsonKind::Boolean:
        return Left() >= 1 && base[at] <= std::byte{1} && Skip(1);
      case BsonKind::Int32:
        return Skip(4);
      case BsonKind::Double:
      case BsonKind::DateTime:
      case BsonKind::Timestamp:
      case BsonKind::Int64:
        return Skip(8);
      case BsonKind::ObjectId:
        return Skip(kObjectIdSize);
      case BsonKind::Decimal128:
        return Skip(16);
      case BsonKind::String:
        return SkipText(Utf8::Checked);
      case BsonKind::Code:
      case BsonKind::Symbol:
        return SkipText(Utf8::Any);
      case BsonKind::Pointer:
        return SkipText(Utf8::Any) && Skip(kObjectIdSize);
      case BsonKind::RegularExpression:
        return SkipCString() && SkipCString();
      case BsonKind::Binary:
        return SkipBinary();
      case BsonKind::Document:
      case BsonKind::Array:
        return Descend(end - 1);
      case BsonKind::CodeWithScope:
        return EnterScope();
    }
    return false;
  }

  bool Descend(std::size_t bound) {
    const std::size_t current = end;
    if (!OpenDocument(bound)) return false;
    outer.push_back(current);
    return true;
  }

  bool Skip(std::size_t count) {
    if (Left() < count) return false;
    at += count;
    return true;
  }

  enum class Utf8 : std::uint8_t { Checked, Any };

  bool SkipText(Utf8 check) {
    if (Left() < kLengthSize) return false;
    const auto length = Load<std::uint32_t>(base + at);
    at += kLengthSize;
    if (length == 0 || length > Left() || base[at + length - 1] != std::byte{0}) return false;
    if (check == Utf8::Checked && !Json::IsUtf8(Chars(base + at, length - 1))) return false;
    at += length;
    return true;
  }

  bool SkipBinary() {
    if (Left() < kBinaryHead) return false;
    const auto length = Load<std::uint32_t>(base + at);
    const std::byte subtype = base[at + kLengthSize];
    at += kBinaryHead;
    if (length > Left()) return false;
    if (subtype == kOldBinary &&
        (length < kLengthSize || Load<std::uint32_t>(base + at) != length - kLengthSize)) {
      return false;
    }
    at += length;
    return true;
  }

  bool SkipCString() {
    const void* const terminator = std::memchr(base + at, 0, Left());
    if (terminator == nullptr) return false;
    at = static_cast<std::size_t>(static_cast<const std::byte*>(terminator) - base) + 1;
    return true;
  }

  // Most keys are short ASCII, which one look at eight bytes shows.
  bool SkipKey() {
    if (Left() >= sizeof(std::uint64_t)) {
      const auto word = Load<std::uint64_t>(base + at);
      const std::uint64_t zeros = ZeroBytes(word);
      const std::uint64_t upToZero = zeros ^ (zeros - 1);
      if (zeros != 0 && (word & kHighBits & upToZero) == 0) {
        at += static_cast<std::size_t>(std::countr_zero(zeros)) / 8 + 1;
        return true;
      }
    }
    const std::size_t begin = at;
    return SkipCString() && Json::IsUtf8(Chars(base + begin, at - 1 - begin));
  }

  // A length, a string and a document, which fill that length exactly.
  bool EnterScope() {
    if (Left() < kLengthSize) return false;
    const std::size_t begin = at;
    const auto length = Load<std::uint32_t>(base + at);
    if (length > Left()) return false;
    at += kLengthSize;
    if (!SkipText(Utf8::Any) || at > begin + length) return false;
    if (!Descend(begin + length)) return false;
    return end == begin + length;
  }

  const std::byte* base;
  std::size_t size;
  std::size_t at = 0;
  std::size_t end = 0;             // of the document that `at` is in
  std::vector<std::size_t> outer;  // the ends of the documents around it
};

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
  if (!Decoder(encoded).Run()) return std::nullopt;
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
  bytes.get()[at] = static_cast<std::byte>(value.Kind());
  Splice(oldBytes, newBytes);
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

std::byte* BsonDocument::Open(std::string_view key, BsonKind kind, std::size_t size) {
  if (size > kMaxDocument || key.size() > kMaxDocument) return nullptr;
  const std::size_t begin = used - 1;
  const std::size_t end = begin + 1 + key.size() + 1 + size + 1;
  if (end > kMaxDocument) return nullptr;
  Reserve(end);
  std::byte* const at = bytes.get() + begin;
  if (!CopyPlain(key, at + 1) && !CanBeKey(key)) return nullptr;
  *at = static_cast<std::byte>(kind);
  std::byte* const value = at + 1 + key.size() + 1;
  value[-1] = std::byte{0};
  value[size] = std::byte{0};
  SetUsed(end);
  return value;
}

template <typename T>
bool BsonDocument::AppendFixed(std::string_view key, BsonKind kind, T value) {
  std::byte* const at = Open(key, kind, sizeof value);
  if (at == nullptr) return false;
  Store(at, value);
  return true;
}

bool BsonDocument::Append(std::string_view key, const BsonElement& value) {
  const std::span<const std::byte> content = value.View().Bytes();
  std::byte* const at = Open(key, value.Kind(), content.size());
  if (at == nullptr) return false;
  std::ranges::copy(content, at);
  return true;
}

bool BsonDocument::AppendDouble(std::string_view key, double value) {
  return AppendFixed(key, BsonKind::Double, value);
}

bool BsonDocument::AppendText(std::string_view key, std::string_view utf8) {
  if (utf8.size() > kMaxDocument || !Json::IsUtf8(utf8)) return false;
  std::byte* const at = Open(key, BsonKind::String, kLengthSize + utf8.size() + 1);
  if (at == nullptr) return false;
  Store(at, static_cast<std::uint32_t>(utf8.size() + 1));
  std::copy_n(AsBytes(utf8).data(), utf8.size(), at + kLengthSize);
  at[kLengthSize + utf8.size()] = std::byte{0};
  return true;
}

bool BsonDocument::AppendBoolean(std::string_view key, bool value) {
  return AppendFixed(key, BsonKind::Boolean, static_cast<std::uint8_t>(value));
}

bool BsonDocument::AppendNull(std::string_view key) {
  return Open(key, BsonKind::Null, 0) != nullptr;
}

bool BsonDocument::AppendInt32(std::string_view key, std::int32_t value) {
  return AppendFixed(key, BsonKind::Int32, value);
}

bool BsonDocument::AppendInt64(std::string_view key, std::int64_t value) {
  return AppendFixed(key, BsonKind::Int64, value);
}

bool BsonDocument::AppendBinary(std::string_view key, std::span<const std::byte> value) {
  if (value.size() > kMaxDocument) return false;
  std::byte* const at = Open(key, BsonKind::Binary, kBinaryHead + value.size());
  if (at == nullptr) return false;
  Store(at, static_cast<std::uint32_t>(value.size()));
  at[kLengthSize] = kGenericBinary;
  std::ranges::copy(value, at + kBinaryHead);
  return true;
}

bool BsonDocument::AppendDocument(std::string_view key, const BsonDocument& value) {
  if (&value == this) return AppendDocument(key, BsonDocument(value));
  std::byte* const at = Open(key, BsonKind::Document, value.used);
  if (at == nullptr) return false;
  std::ranges::copy(value.Encoded(), at);
  return true;
}

bool BsonDocument::operator==(const BsonDocument& other) const {
  return std::ranges::equal(Encoded(), other.Encoded());
}

}  // namespace Vx::Tessel::Server::Storage
