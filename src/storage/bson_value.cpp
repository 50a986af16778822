#include "storage/bson_value.h"

#include <algorithm>

#include "json/utf8.h"
#include "storage/bson_document.h"
#include "storage/bson_format.h"

namespace Vx::Tessel::Server::Storage {

using namespace Bson;  // NOLINT(google-build-using-namespace): its own parts

namespace {

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

std::optional<BsonDocument> BsonElement::AsDocument() const {
  return View().AsDocument();
}

}  // namespace Vx::Tessel::Server::Storage
