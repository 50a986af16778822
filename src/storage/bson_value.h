#pragma once

#include <cstddef>
#include <cstdint>
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

// A value without a key. Owns its bytes. Copies are deep. Initially null. See BsonView for getters.
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

  BsonKind Kind() const { return kind; }
  std::optional<std::string_view> AsText() const { return View().AsText(); }
  std::optional<std::wstring> AsWideText() const { return View().AsWideText(); }
  std::optional<bool> AsBoolean() const { return View().AsBoolean(); }
  std::optional<std::int32_t> AsInt32() const { return View().AsInt32(); }
  std::optional<std::int64_t> AsInt64() const { return View().AsInt64(); }
  std::optional<BsonDocument> AsDocument() const;

  bool operator==(const BsonElement& other) const { return View() == other.View(); }

 private:
  BsonElement(BsonKind elementKind, std::vector<std::byte> value)
      : kind(elementKind), bytes(std::move(value)) {}

  BsonKind kind = BsonKind::Null;
  std::vector<std::byte> bytes;
};

}  // namespace Vx::Tessel::Server::Storage
