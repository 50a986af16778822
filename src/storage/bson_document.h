#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Vx::Tessel::Server::Storage {

// The element kinds of BSON 1.1, by their type byte. Those that this store does not use itself are
// carried byte for byte.
enum class BsonKind : std::uint8_t {
  Double = 0x01,
  String = 0x02,
  Document = 0x03,
  Array = 0x04,
  Binary = 0x05,
  Undefined = 0x06,
  ObjectId = 0x07,
  Boolean = 0x08,
  DateTime = 0x09,
  Null = 0x0A,
  RegularExpression = 0x0B,
  Pointer = 0x0C,
  Code = 0x0D,
  Symbol = 0x0E,
  CodeWithScope = 0x0F,
  Int32 = 0x10,
  Timestamp = 0x11,
  Int64 = 0x12,
  Decimal128 = 0x13,
  MaxKey = 0x7F,
  MinKey = 0xFF,
};

class BsonDocument;

// A value inside a document or an element; borrows their bytes and lives no longer than they stay
// unchanged. The getters answer nothing when the value is of another kind.
class BsonView {
 public:
  BsonView(BsonKind valueKind, std::span<const std::byte> valueBytes)
      : kind(valueKind), bytes(valueBytes) {}

  BsonKind Kind() const { return kind; }

  // The value as it stands in the encoding.
  std::span<const std::byte> Bytes() const { return bytes; }

  std::optional<double> AsDouble() const;
  std::optional<std::string_view> AsText() const;  // UTF-8, valid; may hold U+0000
  std::optional<std::wstring> AsWideText() const;  // the same as UTF-16
  std::optional<bool> AsBoolean() const;
  std::optional<std::int32_t> AsInt32() const;
  std::optional<std::int64_t> AsInt64() const;
  std::optional<std::span<const std::byte>> AsBinary() const;
  std::optional<BsonDocument> AsDocument() const;  // a copy

  bool operator==(const BsonView& other) const;

 private:
  BsonKind kind;
  std::span<const std::byte> bytes;
};

// A value of its own, without a key. Copies are deep; a new one is null. The getters answer nothing
// when the value is of another kind.
class BsonElement {
 public:
  BsonElement() = default;
  explicit BsonElement(const BsonView& view);
  explicit BsonElement(const BsonDocument& document);

  static BsonElement Double(double value);
  static BsonElement Text(std::string_view utf8);    // bytes that are not UTF-8 become U+FFFD
  static BsonElement Text(std::wstring_view utf16);  // unpaired surrogates become U+FFFD
  static BsonElement Boolean(bool value);
  static BsonElement Int32(std::int32_t value);
  static BsonElement Int64(std::int64_t value);
  static BsonElement Binary(std::span<const std::byte> value);  // of the generic subtype

  BsonView View() const { return {kind, bytes}; }

  BsonKind Kind() const { return kind; }
  std::optional<double> AsDouble() const { return View().AsDouble(); }
  std::optional<std::string_view> AsText() const { return View().AsText(); }
  std::optional<std::wstring> AsWideText() const { return View().AsWideText(); }
  std::optional<bool> AsBoolean() const { return View().AsBoolean(); }
  std::optional<std::int32_t> AsInt32() const { return View().AsInt32(); }
  std::optional<std::int64_t> AsInt64() const { return View().AsInt64(); }
  std::optional<std::span<const std::byte>> AsBinary() const { return View().AsBinary(); }
  std::optional<BsonDocument> AsDocument() const;

  bool operator==(const BsonElement& other) const { return View() == other.View(); }

 private:
  BsonElement(BsonKind elementKind, std::vector<std::byte> value)
      : kind(elementKind), bytes(std::move(value)) {}

  BsonKind kind = BsonKind::Null;
  std::vector<std::byte> bytes;
};

// A BSON document: an ordered list of keys and values. It is kept as its encoding, which was
// checked once when it came in, and walked where it lies: what is not changed is never rewritten,
// and a document costs one block of memory whatever is in it.
//
// Keys may be repeated in a document made by others: the first counts, and the rest stay as they
// are until Set or Erase touches that key. Copies are deep. One thread at a time.
class BsonDocument {
 public:
  struct Member {
    std::string_view key;
    BsonView value;
  };

  // Walks the members in order; good until the document changes.
  class Iterator {
   public:
    Member operator*() const;
    Iterator& operator++();
    bool operator==(const Iterator& other) const { return place.begin == other.place.begin; }

   private:
    friend class BsonDocument;

    // Where a member stands: its type byte, its value and the end of it.
    struct Place {
      const std::byte* begin;
      const std::byte* value;
      const std::byte* end;
    };

    explicit Iterator(const std::byte* member);

    Place place;
  };

  // Empty.
  BsonDocument();
  BsonDocument(const BsonDocument& other) : BsonDocument(other.Encoded()) {}
  // What was moved from may only be assigned to or destroyed.
  BsonDocument(BsonDocument&& other) noexcept = default;
  BsonDocument& operator=(const BsonDocument& other) { return *this = BsonDocument(other); }
  BsonDocument& operator=(BsonDocument&& other) noexcept = default;
  ~BsonDocument() = default;

  // The document that `encoded` is, all of it; nothing when anything in it is broken at any level:
  // a length, a terminator, an unknown kind, a boolean other than 0 and 1, a key or string that is
  // not UTF-8. Nesting is followed without recursion, as deep as the bytes go.
  static std::optional<BsonDocument> Decode(std::span<const std::byte> encoded);

  // The encoding, up to date; borrowed until the next change.
  std::span<const std::byte> Encoded() const { return {bytes.get(), used}; }

  Iterator begin() const;
  Iterator end() const;

  // How many members there are, by counting them.
  std::size_t Size() const;
  bool Empty() const { return begin() == end(); }

  // The first member called `key`; found by walking.
  std::optional<BsonView> Find(std::string_view key) const;

  // Puts `value` in the place of the member `key`, or at the end; other members of that key go.
  // False, and nothing changed, when the key cannot be one (U+0000 in it, not UTF-8) or the
  // document would exceed 2 GiB.
  bool Set(std::string_view key, const BsonElement& value);

  // Removes every member called `key`.
  void Erase(std::string_view key);

  // Adds a member at the end without looking whether there is one of that key. False as in Set. Key
  // and value may not lie in this document.
  bool Append(std::string_view key, const BsonElement& value);
  bool AppendDouble(std::string_view key, double value);
  bool AppendText(std::string_view key, std::string_view utf8);  // must be UTF-8, else false
  bool AppendBoolean(std::string_view key, bool value);
  bool AppendNull(std::string_view key);
  bool AppendInt32(std::string_view key, std::int32_t value);
  bool AppendInt64(std::string_view key, std::int64_t value);
  bool AppendBinary(std::string_view key, std::span<const std::byte> value);
  bool AppendDocument(std::string_view key, const BsonDocument& value);

  bool operator==(const BsonDocument& other) const;

 private:
  friend class BsonView;
  class Decoder;

  // The memory is the C library's, whose realloc can grow it where it lies.
  struct Freer {
    void operator()(std::byte* memory) const noexcept { std::free(memory); }
  };

  // A copy of `checked`, which is a document.
  explicit BsonDocument(std::span<const std::byte> checked);

  // Adds a member whose value has `size` bytes, to be filled in where the answer points; null when
  // it cannot be added.
  std::byte* Open(std::string_view key, BsonKind kind, std::size_t size);

  template <typename T>
  bool AppendFixed(std::string_view key, BsonKind kind, T value);

  // The first member called `key` at or behind `from`.
  Iterator FirstOf(std::string_view key, Iterator from) const;

  // Puts `replacement` in the place of a part of the encoding.
  void Splice(std::span<const std::byte> part, std::span<const std::byte> replacement);
  void Reserve(std::size_t size);
  void SetUsed(std::size_t size);

  std::unique_ptr<std::byte, Freer> bytes;
  std::size_t used = 0;  // bytes of the encoding
  std::size_t room = 0;  // bytes of memory
};

}  // namespace Vx::Tessel::Server::Storage
