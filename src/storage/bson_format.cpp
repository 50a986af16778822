#include "storage/bson_format.h"

#include <vector>

#include "json/utf8.h"
#include "storage/bson_value.h"

namespace Vx::Tessel::Server::Storage::Bson {

namespace {

// Whether bytes are one well-formed document. What a container holds lies in the same bytes, so its
// end is all that is kept while its content is walked.
class Checker {
 public:
  explicit Checker(std::span<const std::byte> encoded)
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

}  // namespace

bool IsDocument(std::span<const std::byte> encoded) {
  return Checker(encoded).Run();
}

}  // namespace Vx::Tessel::Server::Storage::Bson
