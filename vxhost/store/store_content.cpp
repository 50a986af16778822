#include "vxhost/store/store_content.h"

#include <algorithm>
#include <cstdint>
#include <iterator>

#include "hosting/text.h"
#include "json/utf8.h"
#include "storage/service_document.h"
#include "vxhost/store/store_repair.h"

namespace Vx::Hosting::Tool {

namespace {

using namespace Tessel::Server::Services::Orvane;
using Json::WideDocument;
using Json::WideValue;
using Tessel::Server::Storage::BsonDocument;
using Tessel::Server::Storage::BsonElement;
using Tessel::Server::Storage::BsonKind;
using Tessel::Server::Storage::BsonView;

// Documents can be nested arbitrarily deep. Only the size of those below this level is shown.
constexpr int kShownLevels = 32;

constexpr struct {
  BsonKind kind;
  const wchar_t* name;
} kKinds[] = {
    {BsonKind::Double, L"double"}, {BsonKind::String, L"text"},  {BsonKind::Document, L"document"},
    {BsonKind::Binary, L"binary"}, {BsonKind::Boolean, L"bool"}, {BsonKind::Null, L"null"},
    {BsonKind::Int32, L"int32"},   {BsonKind::Int64, L"int64"},
};

const wchar_t* KindName(BsonKind kind) {
  const auto* row = std::ranges::find(kKinds, kind, [](const auto& known) { return known.kind; });
  return row == std::end(kKinds) ? L"other" : row->name;
}

// Converts a document to JSON: each member becomes an object with its type and value, or its size
// in bytes if the value cannot be shown.
class StoreWriter {
 public:
  explicit StoreWriter(WideDocument& target, ShownValues which = ShownValues::All)
      : pool(target.GetAllocator()), shown(which) {}

  // `name` is the document's name in the store, empty for the top level.
  WideValue Document(const BsonDocument& document, int levelsLeft, const std::string& name = {}) {
    WideValue object(rapidjson::kObjectType);
    for (const BsonDocument::Member& member : document) {
      const std::string key(member.key);
      if (shown == ShownValues::Exported && !IsExported(name, key) &&
          (!name.empty() || key != kServiceDocument)) {
        ++left;
        continue;
      }
      object.AddMember(WideValue(Json::ToWide(key), pool), Member(key, member.value, levelsLeft),
                       pool);
    }
    return object;
  }

  // Returns the number of values left out.
  std::size_t Left() const { return left; }

 private:
  WideValue Member(const std::string& key, const BsonView& view, int levelsLeft) {
    WideValue member(rapidjson::kObjectType);
    member.AddMember(L"type", WideValue(KindName(view.Kind()), pool), pool);
    if (const auto embedded = levelsLeft > 0 ? view.AsDocument() : std::nullopt) {
      member.AddMember(L"value", Document(*embedded, levelsLeft - 1, key), pool);
    } else if (WideValue value = Scalar(view); !value.IsNull()) {
      member.AddMember(L"value", value, pool);
    } else {
      member.AddMember(L"bytes", static_cast<std::uint64_t>(view.Bytes().size()), pool);
    }
    return member;
  }

  WideValue Scalar(const BsonView& view) {
    if (const auto text = view.AsWideText()) return WideValue(*text, pool);
    if (const auto flag = view.AsBoolean()) return WideValue(*flag);
    if (const auto number = view.AsInt32()) return WideValue(*number);
    if (const auto number = view.AsInt64()) return WideValue(*number);
    if (const auto number = view.AsDouble()) return WideValue(*number);
    return WideValue();
  }

  Json::WidePool& pool;
  ShownValues shown;
  std::size_t left = 0;
};

}  // namespace

std::optional<BsonElement> ScalarOf(BsonKind kind, const WideValue& value) {
  if (kind == BsonKind::String && value.IsString()) return BsonElement::Text(TextOf(value));
  if (kind == BsonKind::Boolean && value.IsBool()) return BsonElement::Boolean(value.GetBool());
  if (kind == BsonKind::Int32 && value.IsInt()) return BsonElement::Int32(value.GetInt());
  if (kind == BsonKind::Int64 && value.IsInt64()) return BsonElement::Int64(value.GetInt64());
  return std::nullopt;
}

BsonKind KindNamed(const std::wstring& name) {
  const auto* row = std::ranges::find(kKinds, name, [](const auto& known) { return known.name; });
  return row == std::end(kKinds) ? BsonKind{} : row->kind;
}

WideDocument StoreContent(const StoreLook& look, ShownValues shown, std::size_t& left) {
  const BsonDocument stored = DocumentOf(look);
  WideDocument content(rapidjson::kObjectType);
  auto& pool = content.GetAllocator();
  content.AddMember(L"storeId", WideValue(look.reading.id, pool), pool);
  StoreWriter writer(content, shown);
  content.AddMember(L"document", writer.Document(stored, kShownLevels), pool);
  left = writer.Left();
  return content;
}

std::vector<std::string> StoreLines() {
  const StoreLook look = LookAtStore();
  if (look.reading.state == Tessel::Server::Storage::StoreState::Missing) return {};
  WideDocument document;
  document.CopyFrom(StoreWriter(document).Document(DocumentOf(look), kShownLevels),
                    document.GetAllocator());
  std::vector<std::string> lines;
  for (auto value = document.MemberBegin(); value < document.MemberEnd(); ++value) {
    lines.push_back(Utf8(value->name.GetString()) + " " + Utf8(Json::JsonText(value->value)));
  }
  return lines;
}

}  // namespace Vx::Hosting::Tool
