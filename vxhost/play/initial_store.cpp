#include "vxhost/play/initial_store.h"

#include <stdexcept>
#include <utility>

#include "hosting/text.h"
#include "storage/cap_data_store.h"
#include "vxhost/store/store_content.h"

namespace Vx::Hosting::Tool {

namespace {

using Json::WideValue;
using Tessel::Server::Storage::BsonDocument;
using Tessel::Server::Storage::BsonElement;
using Tessel::Server::Storage::BsonKind;
using Tessel::Server::Storage::CapDataStore;

// Converts an integer to int32 if it fits, otherwise to int64.
BsonElement PlainElement(const WideValue& value, const Definitions& definitions) {
  if (value.IsNull()) return BsonElement();
  if (value.IsBool()) return BsonElement::Boolean(value.GetBool());
  if (value.IsInt()) return BsonElement::Int32(value.GetInt());
  if (value.IsInt64()) return BsonElement::Int64(value.GetInt64());
  if (value.IsString()) {
    return BsonElement::Text(Expanded(TextOf(value), definitions));
  }
  return BsonElement::Text(Json::JsonText(value));
}

// Converts {"type", "value"}, as printed by "store show". The parser limits the depth.
BsonElement TypedElement(const std::string& key, const WideValue& member) {
  const WideValue* type = member.IsObject() ? FindMember(member, L"type") : nullptr;
  const WideValue* value = member.IsObject() ? FindMember(member, L"value") : nullptr;
  const BsonKind kind = KindNamed(type != nullptr && type->IsString() ? TextOf(*type) : L"");
  if (kind == BsonKind::Null) return BsonElement();
  if (value != nullptr) {
    if (auto scalar = ScalarOf(kind, *value)) return *std::move(scalar);
    if (kind == BsonKind::Document && value->IsObject()) {
      BsonDocument document;
      for (auto inner = value->MemberBegin(); inner != value->MemberEnd(); ++inner) {
        const std::string name = Utf8(inner->name.GetString());
        document.Set(name, TypedElement(name, inner->value));
      }
      return BsonElement(document);
    }
  }
  throw std::runtime_error("the initial store cannot contain \"" + key +
                           "\": " + Utf8(Json::JsonText(member)));
}

}  // namespace

InitialStore::InitialStore(const WideValue& value, const std::wstring& folder, Definitions names)
    : definitions(std::move(names)) {
  if (value.IsObject()) {
    values = &value;
    return;
  }
  std::wstring path = Expanded(TextOf(value), definitions);
  if (path.find(L':') == path.npos) path = folder + path;
  file = std::make_unique<Json::WideDocument>();
  if (Json::ParseJson(*file, ReadTextFile(path)) && file->IsObject()) {
    values = FindMember(*file, L"document");
  }
  if (values == nullptr || !values->IsObject()) {
    throw std::runtime_error(Utf8(path) + " is not a store as \"vxhost store show\" prints it");
  }
  for (auto member = values->MemberBegin(); member != values->MemberEnd(); ++member) {
    TypedElement(Utf8(member->name.GetString()), member->value);
  }
}

void InitialStore::Write() const {
  if (values == nullptr) return;
  for (auto member = values->MemberBegin(); member != values->MemberEnd(); ++member) {
    const std::string key = Utf8(member->name.GetString());
    if (file != nullptr) {
      CapDataStore().persist(key, TypedElement(key, member->value));
    } else {
      StoreValue(key, member->value, definitions);
    }
  }
}

void StoreValue(const std::string& key, const WideValue& value, const Definitions& definitions) {
  if (!value.IsObject()) {
    CapDataStore().persist(key, PlainElement(value, definitions));
    return;
  }
  for (auto member = value.MemberBegin(); member != value.MemberEnd(); ++member) {
    CapDataStore().mergeMember(key, Utf8(member->name.GetString()),
                               PlainElement(member->value, definitions));
  }
}

}  // namespace Vx::Hosting::Tool
