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

// The element kinds of BSON 1.1, by type byte.
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

// A value inside a document or an element. Borrows its bytes and is valid until they change. Other
// services write them, so each getter checks them and returns nothing if they are not of its kind.
class BsonView {
 public:
  BsonView(BsonKind valueKind, std::span<const std::byte> valueBytes)
      : kind(valueKind), bytes(valueBytes) {}

  BsonKind Kind() const { return kind; }

  // Returns the encoded value.
  std::span<const std::byte> Bytes() const { return bytes; }

  std::optional<double> AsDouble() const;
  std::optional<std::string_view> AsText() const;  // UTF-8, may contain U+0000
  std::optional<std::wstring> AsWideText() const;  // UTF-16
  std::optional<bool> AsBoolean() const;
  std::optional<std::int32_t> AsInt32() const;
  std::optional<std::int64_t> AsInt64() const;
  std::optional<BsonDocument> AsDocument() const;  // a copy

  bool operator==(const BsonView& other) const;

 private:
  BsonKind kind;
  std::span<const std::byte> bytes;
};

// A value without a key. Owns its bytes. Copies are deep. Initially null.
class BsonElement {
 public:
  BsonElement() = default;
  explicit BsonElement(const BsonView& view);
  explicit BsonElement(const BsonDocument& document);

  static BsonElement Text(std::string_view utf8);    // bytes that are not UTF-8 become U+FFFD
  static BsonElement Text(std::wstring_view utf16);  // unpaired surrogates become U+FFFD
  static BsonElement Boolean(bool value);
  static BsonElement Int32(std::int32_t value);
  static BsonElement Int64(std::int64_t value);

  BsonView View() const { return {kind, bytes}; }

  bool operator==(const BsonElement& other) const { return View() == other.View(); }

 private:
  BsonElement(BsonKind elementKind, std::vector<std::byte> value)
      : kind(elementKind), bytes(std::move(value)) {}

  BsonKind kind = BsonKind::Null;
  std::vector<std::byte> bytes;
};

// A BSON document: an ordered list of keys and values. Keeps its encoding and walks it in place. A
// change rewrites only the changed member, so that other services' values stay identical, byte for
// byte, whatever they contain.
//
// A document from another service may repeat a key. The first one wins, and the others stay until
// Set or Erase changes that key. Copies are deep. Use from one thread at a time.
class BsonDocument {
 public:
  // Keys written by other services need not be UTF-8.
  struct Member {
    std::string_view key;
    BsonView value;
  };

  // Walks the members in order. Valid until the document changes.
  class Iterator {
   public:
    Member operator*() const;
    Iterator& operator++();
    bool operator==(const Iterator& other) const { return rest.data() == other.rest.data(); }

   private:
    friend class BsonDocument;

    explicit Iterator(std::span<const std::byte> members) : rest(members) {}
    std::span<const std::byte> Whole() const;  // the bytes of the member

    std::span<const std::byte> rest;  // this member and those that follow
  };

  BsonDocument();
  BsonDocument(const BsonDocument& other) : BsonDocument(other.Encoded()) {}
  // A moved-from document may only be assigned to or destroyed.
  BsonDocument(BsonDocument&& other) noexcept = default;
  BsonDocument& operator=(const BsonDocument& other) { return *this = BsonDocument(other); }
  BsonDocument& operator=(BsonDocument&& other) noexcept = default;
  ~BsonDocument() = default;

  // Decodes the document that occupies all of `encoded`. Returns nothing if it cannot be split into
  // members: a length is wrong, the terminator of the document or of a key is missing, or a kind is
  // unknown. The content of a value is checked when a getter reads it.
  static std::optional<BsonDocument> Decode(std::span<const std::byte> encoded);

  // Returns the encoding, which is valid until the next change.
  std::span<const std::byte> Encoded() const { return {bytes.get(), used}; }

  Iterator begin() const;
  Iterator end() const;

  std::size_t Size() const;
  bool Empty() const { return begin() == end(); }

  // Returns the value of the first member called `key`.
  std::optional<BsonView> Find(std::string_view key) const;

  // Replaces the value of the first member called `key` and removes the others, or appends a new
  // member. Returns false and changes nothing if a new key is invalid (it contains U+0000 or is not
  // UTF-8) or the document would exceed 2 GiB.
  bool Set(std::string_view key, const BsonElement& value);

  // Removes every member called `key`.
  void Erase(std::string_view key);

  bool operator==(const BsonDocument& other) const;

 private:
  // The memory comes from the C library, whose realloc can extend it in place.
  struct Freer {
    void operator()(std::byte* memory) const noexcept { std::free(memory); }
  };

  // Copies `checked`, which must be a valid document.
  explicit BsonDocument(std::span<const std::byte> checked);

  // Adds a member at the end without looking for another with the same key. Fails as Set does.
  bool Append(std::string_view key, const BsonElement& value);

  // Returns an iterator to the member that starts at `offset`.
  Iterator From(std::size_t offset) const;

  // Removes all members called `key` at or after `offset`, which must be the start of a member.
  void EraseFrom(std::size_t offset, std::string_view key);

  // Finds the first member called `key`.
  Iterator FirstOf(std::string_view key) const;

  // Replaces `part`, which must point into the encoding.
  void Splice(std::span<const std::byte> part, std::span<const std::byte> replacement);
  void Reserve(std::size_t size);
  void SetUsed(std::size_t size);

  std::unique_ptr<std::byte, Freer> bytes;
  std::size_t used = 0;  // size of the encoding in bytes
  std::size_t room = 0;  // allocated bytes
};

}  // namespace Vx::Tessel::Server::Storage
