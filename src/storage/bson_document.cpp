#include "storage/bson_document.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <limits>

#include "json/utf8.h"

namespace Vx::Tessel::Server::Storage {

namespace {

static_assert(std::endian::native == std::endian::little, "BSON is read in place");

constexpr std::size_t kLengthSize = 4;     // the length at the front of documents and strings
constexpr std::size_t kEmptyDocument = 5;  // the length and the terminator
constexpr std::size_t kMaxDocument = std::numeric_limits<std::int32_t>::max();
constexpr std::size_t kBinaryHead = 5;  // the length and the subtype
constexpr std::byte kOldBinary{2};      // the subtype that repeats the length inside
constexpr std::uint64_t kLowBits = 0x0101010101010101U;
constexpr std::uint64_t kHighBits = 0x8080808080808080U;

template <typename T>
T Load(const std::byte* at) {
  T value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

template <typename T>
std::array<std::byte, sizeof(T)> BytesOf(T value) {
  return std::bit_cast<std::array<std::byte, sizeof(T)>>(value);
}

template <typename T>
std::optional<T> Fixed(BsonKind kind, BsonKind wanted, std::span<const std::byte> bytes) {
  if (kind != wanted || bytes.size() != sizeof(T)) return std::nullopt;
  return Load<T>(bytes.data());
}

template <typename T>
std::vector<std::byte> Owned(T value) {
  const auto bytes = BytesOf(value);
  return {bytes.begin(), bytes.end()};
}

std::string_view Chars(const std::byte* begin, std::size_t size) {
  return {reinterpret_cast<const char*>(begin), size};
}

std::span<const std::byte> AsBytes(std::string_view text) {
  return std::as_bytes(std::span(text));
}

bool CanBeKey(std::string_view key) {
  return key.find('\0') == std::string_view::npos && Json::IsUtf8(key);
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
  return BsonDocument::Decode({bytes.begin(), bytes.end()});
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

// Walks an encoding once from front to back and believes nothing before it is checked. What a
// container holds lies in the same bytes, so its end is all that is kept while its content is
// walked.
class BsonDocument::Decoder {
 public:
  Decoder(const std::vector<std::byte>& encoded, std::vector<Record>& index)
      : base(encoded.data()), size(encoded.size()), records(index) {}

  bool Run() {
    if (size > kMaxDocument || !OpenDocument(size) || end != size) return false;
    for (;;) {
      if (at == end - 1) {
        if (base[at] != std::byte{0}) return false;
        ++at;
        if (outer.empty()) return true;
        end = outer.back();
        outer.pop_back();
        if (outer.empty()) records.back().end = static_cast<std::uint32_t>(at);
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
    const std::size_t begin = at;
    const auto kind = static_cast<BsonKind>(base[at++]);
    if (!SkipKey()) return false;
    if (outer.empty()) {
      records.push_back({static_cast<std::uint32_t>(begin), static_cast<std::uint32_t>(at), 0});
    }
    const bool nested = !outer.empty();
    if (!Value(kind)) return false;
    if (!nested) records.back().end = static_cast<std::uint32_t>(at);
    return true;
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
      const std::uint64_t zeros = (word - kLowBits) & ~word & kHighBits;
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

  static constexpr std::size_t kObjectIdSize = 12;

  const std::byte* base;
  std::size_t size;
  std::vector<Record>& records;
  std::size_t at = 0;
  std::size_t end = 0;             // of the document that `at` is in
  std::vector<std::size_t> outer;  // the ends of the documents around it
};

BsonDocument::BsonDocument() : bytes(Owned(static_cast<std::uint32_t>(kEmptyDocument))) {
  bytes.push_back(std::byte{0});
}

std::optional<BsonDocument> BsonDocument::Decode(std::vector<std::byte> encoded) {
  std::optional<BsonDocument> document(std::in_place);
  if (!Decoder(encoded, document->records).Run()) return std::nullopt;
  document->bytes = std::move(encoded);
  return document;
}

BsonDocument::Member BsonDocument::At(std::size_t index) const {
  const Record& record = records[index];
  const std::byte* const base = bytes.data();
  return {Chars(base + record.begin + 1, record.value - record.begin - 2),
          {static_cast<BsonKind>(base[record.begin]),
           {base + record.value, static_cast<std::size_t>(record.end - record.value)}}};
}

std::size_t BsonDocument::IndexOf(std::string_view key, std::size_t from) const {
  for (std::size_t i = from; i < records.size(); ++i) {
    if (At(i).key == key) return i;
  }
  return records.size();
}

std::optional<BsonView> BsonDocument::Find(std::string_view key) const {
  const std::size_t index = IndexOf(key, 0);
  if (index == records.size()) return std::nullopt;
  return At(index).value;
}

bool BsonDocument::Set(std::string_view key, const BsonElement& value) {
  const std::size_t index = IndexOf(key, 0);
  if (index == records.size()) return Append(key, value);
  const std::size_t oldSize = At(index).value.Bytes().size();
  if (bytes.size() - oldSize + value.View().Bytes().size() > kMaxDocument) return false;
  for (std::size_t i = records.size(); i-- > index + 1;) {
    if (At(i).key == At(index).key) Remove(i);
  }
  Replace(index, value.View());
  return true;
}

void BsonDocument::Erase(std::string_view key) {
  const std::string name(key);  // `key` may lie in this document
  for (std::size_t i = IndexOf(name, 0); i < records.size(); i = IndexOf(name, i)) Remove(i);
}

void BsonDocument::Remove(std::size_t index) {
  const Record gone = records[index];
  bytes.erase(bytes.begin() + gone.begin, bytes.begin() + gone.end);
  records.erase(records.begin() + static_cast<std::ptrdiff_t>(index));
  for (std::size_t i = index; i < records.size(); ++i) {
    records[i].begin -= gone.end - gone.begin;
    records[i].value -= gone.end - gone.begin;
    records[i].end -= gone.end - gone.begin;
  }
  StoreLength();
}

void BsonDocument::Replace(std::size_t index, const BsonView& value) {
  Record& record = records[index];
  const std::uint32_t oldSize = record.end - record.value;
  const auto newSize = static_cast<std::uint32_t>(value.Bytes().size());
  bytes[record.begin] = static_cast<std::byte>(value.Kind());
  if (newSize < oldSize) {
    bytes.erase(bytes.begin() + record.value + newSize, bytes.begin() + record.end);
  } else {
    bytes.insert(bytes.begin() + record.end, newSize - oldSize, std::byte{0});
  }
  std::ranges::copy(value.Bytes(), bytes.begin() + record.value);
  const std::uint32_t shift = newSize - oldSize;  // wraps around when it shrinks, as do the sums
  record.end += shift;
  for (std::size_t i = index + 1; i < records.size(); ++i) {
    records[i].begin += shift;
    records[i].value += shift;
    records[i].end += shift;
  }
  StoreLength();
}

void BsonDocument::StoreLength() {
  const auto length = BytesOf(static_cast<std::uint32_t>(bytes.size()));
  std::ranges::copy(length, bytes.begin());
}

bool BsonDocument::AppendRaw(std::string_view key, BsonKind kind, std::span<const std::byte> head,
                             std::span<const std::byte> tail, std::size_t zeros) {
  const std::size_t valueSize = head.size() + tail.size() + zeros;
  if (!CanBeKey(key) || valueSize > kMaxDocument || key.size() > kMaxDocument ||
      bytes.size() + key.size() + 2 + valueSize > kMaxDocument) {
    return false;
  }
  const std::size_t begin = bytes.size() - 1;
  const std::size_t value = begin + key.size() + 2;
  // Zeros where nothing is copied to: behind the key, behind a text, and at the document's end.
  bytes.resize(value + valueSize + 1);
  bytes[begin] = static_cast<std::byte>(kind);
  std::ranges::copy(AsBytes(key), bytes.begin() + static_cast<std::ptrdiff_t>(begin + 1));
  std::ranges::copy(head, bytes.begin() + static_cast<std::ptrdiff_t>(value));
  std::ranges::copy(tail, bytes.begin() + static_cast<std::ptrdiff_t>(value + head.size()));
  records.push_back({static_cast<std::uint32_t>(begin), static_cast<std::uint32_t>(value),
                     static_cast<std::uint32_t>(value + valueSize)});
  StoreLength();
  return true;
}

bool BsonDocument::Append(std::string_view key, const BsonElement& value) {
  return AppendRaw(key, value.Kind(), value.View().Bytes(), {}, 0);
}

bool BsonDocument::AppendDouble(std::string_view key, double value) {
  return AppendRaw(key, BsonKind::Double, BytesOf(value), {}, 0);
}

bool BsonDocument::AppendText(std::string_view key, std::string_view utf8) {
  if (utf8.size() >= kMaxDocument || !Json::IsUtf8(utf8)) return false;
  return AppendRaw(key, BsonKind::String, BytesOf(static_cast<std::uint32_t>(utf8.size() + 1)),
                   AsBytes(utf8), 1);
}

bool BsonDocument::AppendBoolean(std::string_view key, bool value) {
  return AppendRaw(key, BsonKind::Boolean, BytesOf(static_cast<std::uint8_t>(value)), {}, 0);
}

bool BsonDocument::AppendNull(std::string_view key) {
  return AppendRaw(key, BsonKind::Null, {}, {}, 0);
}

bool BsonDocument::AppendInt32(std::string_view key, std::int32_t value) {
  return AppendRaw(key, BsonKind::Int32, BytesOf(value), {}, 0);
}

bool BsonDocument::AppendInt64(std::string_view key, std::int64_t value) {
  return AppendRaw(key, BsonKind::Int64, BytesOf(value), {}, 0);
}

bool BsonDocument::AppendBinary(std::string_view key, std::span<const std::byte> value) {
  if (value.size() >= kMaxDocument) return false;
  std::array<std::byte, kBinaryHead> head{};
  std::ranges::copy(BytesOf(static_cast<std::uint32_t>(value.size())), head.begin());
  return AppendRaw(key, BsonKind::Binary, head, value, 0);
}

bool BsonDocument::AppendDocument(std::string_view key, const BsonDocument& value) {
  if (&value == this) return AppendDocument(key, BsonDocument(value));
  return AppendRaw(key, BsonKind::Document, value.Encoded(), {}, 0);
}

bool BsonDocument::operator==(const BsonDocument& other) const {
  return std::ranges::equal(bytes, other.bytes);
}

}  // namespace Vx::Tessel::Server::Storage
