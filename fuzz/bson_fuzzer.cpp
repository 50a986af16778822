#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/fuzz_check.h"
#include "storage/bson_document.h"

namespace {

using Vx::Fuzz::Check;
using Vx::Tessel::Server::Storage::BsonDocument;
using Vx::Tessel::Server::Storage::BsonElement;
using Vx::Tessel::Server::Storage::BsonKind;
using Vx::Tessel::Server::Storage::BsonView;

BsonDocument Again(const BsonDocument& document) {
  const auto bytes = document.Encoded();
  std::optional<BsonDocument> decoded = BsonDocument::Decode({bytes.begin(), bytes.end()});
  Check(decoded.has_value(), "what was encoded can be decoded");
  return *std::move(decoded);
}

// Returns the encoded size of a member: its kind, key, terminator and value.
std::size_t SizeOf(const BsonDocument::Member& member) {
  return 2 + member.key.size() + member.value.Bytes().size();
}

// Calls every getter of every value, to a depth of `levels`.
void Walk(const BsonDocument& document, int levels) {
  std::size_t size = 5;  // the length and the terminator
  for (const BsonDocument::Member& member : document) {
    const BsonElement element(member.value);
    const BsonView value = element.View();
    const BsonKind kind = value.Kind();
    Check(!value.AsText() || kind == BsonKind::String, "texts are texts");
    Check(!value.AsBoolean() || kind == BsonKind::Boolean, "booleans are booleans");
    Check(value.AsInt32().has_value() == (kind == BsonKind::Int32), "int32");
    Check(value.AsInt64().has_value() == (kind == BsonKind::Int64), "int64");
    Check(value.AsDouble().has_value() == (kind == BsonKind::Double), "double");
    if (value.AsText()) {
      Check(BsonElement::Text(*value.AsWideText()) == element, "UTF-16 loses no text");
    }
    const std::optional<BsonDocument> inner = value.AsDocument();
    Check(!inner || kind == BsonKind::Document, "documents are documents");
    if (inner && levels > 0) Walk(*inner, levels - 1);
    Check(document.Find(member.key).has_value(), "each key is found");
    size += SizeOf(member);
  }
  Check(size == document.Encoded().size(), "the members are the document");
}

// Changes one member, then removes it. The others must stay unchanged.
void Change(const BsonDocument& document) {
  BsonDocument changed = document;
  if (document.Empty()) return;
  BsonDocument::Iterator middle = document.begin();
  for (std::size_t i = document.Size() / 2; i > 0; --i) ++middle;
  const std::string key((*middle).key);
  // An existing key can be set even if it is not valid UTF-8.
  Check(changed.Set(key, BsonElement::Text(L"another value")), "a key can be set");
  Check(Again(changed).Find(key)->AsText() == "another value", "what was set is found");
  changed.Erase(key);

  const BsonDocument rest = Again(changed);
  BsonDocument::Iterator kept = rest.begin();
  for (const BsonDocument::Member& member : document) {
    if (member.key == key) continue;
    Check((*kept).key == member.key && (*kept).value == member.value, "other members stay");
    ++kept;
  }
  Check(kept == rest.end(), "what was erased is gone");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto bytes = std::as_bytes(std::span(data, size));
  const std::optional<BsonDocument> document = BsonDocument::Decode({bytes.begin(), bytes.end()});
  if (!document) return 0;
  Check(std::ranges::equal(document->Encoded(), bytes), "decoding changes no byte");
  constexpr int kLevels = 3;
  Walk(*document, kLevels);
  Change(*document);
  return 0;
}
