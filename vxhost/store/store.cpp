#include "vxhost/store/store.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <memory>
#include <span>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "hosting/text.h"
#include "json/utf8.h"
#include "platform/clock.h"
#include "platform/file_handle.h"
#include "platform/files.h"
#include "platform/machine.h"
#include "platform/system_services.h"
#include "platform/windows_runtime_error.h"
#include "records/record.h"
#include "storage/cap_data_store.h"
#include "storage/request_list.h"
#include "storage/service_document.h"

namespace Vx::Hosting::Tool {

namespace {

using namespace Tessel::Server::Services::Orvane;
using Json::WideDocument;
using Json::WideValue;
using Tessel::Server::Storage::BsonDocument;
using Tessel::Server::Storage::BsonElement;
using Tessel::Server::Storage::BsonKind;
using Tessel::Server::Storage::BsonView;
using Tessel::Server::Storage::CapDataStore;
using Tessel::Server::Storage::SealedFile;
using Tessel::Server::Storage::StoreState;

std::string Hexadecimal(std::uint32_t error) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", error);
  return text;
}

bool IsForeign(const std::wstring& path) {
  const auto file = Platform::CurrentMachine().files->Open(path, Platform::FileUse::Inspect);
  if (!file) return false;
  const auto ours = (*file)->HasTrustedOwner();
  return ours && !*ours;
}

bool HasSecondName(const std::wstring& path) {
  const auto file = Platform::CurrentMachine().files->Open(path, Platform::FileUse::Inspect);
  if (!file) return false;
  const auto facts = (*file)->Facts();
  return facts && facts->names > 1;
}

std::vector<std::optional<std::wstring>> Texts(const BsonDocument& own,
                                               const SubscriptionForm& kind) {
  const auto value = own.Find(kind.list);
  if (!value) return {};
  try {
    if (const auto list = value->AsWideText()) return Tessel::Server::Storage::RequestsOf(*list);
  } catch (const Platform::WindowsRuntimeError&) {  // NOLINT(bugprone-empty-catch): see below
  }
  throw std::runtime_error(std::string("the stored list ") + kind.list +
                           " is not a JSON array, so the module treats it as empty");
}

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

constexpr std::string_view kTopLevel;

// This module's values, as listed in docs/operations.md. Those of other services may be secret.
struct OwnValue {
  std::string_view document;
  const char* key = "";
  BsonKind kind{};
};
constexpr OwnValue kOwnValues[] = {
    {kServiceDocument, kPowerSubscriptions, BsonKind::String},
    {kServiceDocument, kZephraSubscriptions, BsonKind::String},
    {kServiceDocument, kPackageSubscriptions, BsonKind::String},
    {kServiceDocument, kFirstEnforcementMode, BsonKind::Int32},
    {kServiceDocument, kExecutedStub, BsonKind::Boolean},
    {kServiceDocument, kBornOnDate, BsonKind::String},
    {kTopLevel, "OrvaneLastBootTime", BsonKind::Int64},
    {kTopLevel, "oobe_complete_event_sent_to_quboapp", BsonKind::Boolean},
    {kTopLevel, "oobe_complete_aurelo_launched", BsonKind::Boolean},
    {kTopLevel, "qubo_autolaunch_software_happened", BsonKind::Boolean},
    {kTopLevel, "qubo_autolaunch_registration_happened", BsonKind::Boolean},
    {kTopLevel, "qubo_wakeup_for_smode_skip", BsonKind::Boolean},
    {kTopLevel, "orvane_service_policy_changed_event", BsonKind::String},
};

// Returns null if the value belongs to another service.
const OwnValue* Find(std::string_view document, const std::string& key) {
  const auto* found = std::ranges::find_if(kOwnValues, [&](const OwnValue& value) {
    return value.document == document && key == value.key;
  });
  return found == std::end(kOwnValues) ? nullptr : found;
}

// Converts a document to JSON: each member becomes an object with its type and value, or its size
// in bytes if the value cannot be shown.
class StoreWriter {
 public:
  // Counts the values left out in `omitted`.
  StoreWriter(Json::WidePool& memory, ShownValues which, std::size_t& omitted)
      : pool(memory), shown(which), left(omitted) {}

  // `name` is the document's name in the store.
  WideValue Document(const BsonDocument& document, int levelsLeft, std::string_view name) {
    WideValue object(rapidjson::kObjectType);
    for (const BsonDocument::Member& member : document) {
      const std::string key(member.key);
      if (shown == ShownValues::Exported && Find(name, key) == nullptr &&
          (name != kTopLevel || key != kServiceDocument)) {
        ++left;
        continue;
      }
      object.AddMember(WideValue(Json::ToWide(key), pool), Member(key, member.value, levelsLeft),
                       pool);
    }
    return object;
  }

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
  std::size_t& left;
};

// Writes a new file with the same access rights as `accessLike`.
std::unique_ptr<Platform::FileHandle> WriteNew(const std::wstring& path,
                                               const std::wstring& accessLike,
                                               std::span<const std::byte> content) {
  auto made = Platform::CurrentMachine().files->Create(path, accessLike);
  if (!made) throw WindowsError("cannot create " + Utf8(path), made.Error());
  Platform::ErrorCode error = (*made)->Write(content);
  if (error == 0) error = (*made)->Flush();
  if (error == 0) return *std::move(made);
  (*made)->Remove();
  throw WindowsError("cannot write " + Utf8(path), error);
}

// Throws unless `look` shows a sound store that this machine can read.
void RequireStore(const StoreLook& look) {
  if (look.reading.document) SubscriptionsIn(*look.reading.document);  // names the bad list
  const StoreVerdict verdict = Diagnose(look, Owner::Any);
  if (!verdict.IsSound())
    throw std::runtime_error(Utf8(look.path) + " is not used: " + verdict.text);
  if (!look.reading.document) {
    throw std::runtime_error(Utf8(look.path) + " is not used: it contains no values");
  }
}

// Copies the store, even if damaged, within its folder. Returns the copy's path, or an empty
// string if no copy is needed.
std::wstring Keep(const StoreLook& look) {
  if (look.reading.state == StoreState::Missing) return {};
  if (!Tessel::Server::Storage::MayReplace(look.reading.state)) {
    throw std::runtime_error("the store is not replaced: " + Diagnose(look).text);
  }
  std::wstring date = DateTimeText(Platform::WindowsMachine().clock->UtcFileTime());
  std::erase_if(date, [](wchar_t c) { return c == L'-' || c == L':'; });
  std::ranges::replace_if(
      date, [](wchar_t c) { return c == L'T' || c == L'.'; }, L'-');
  std::wstring path = look.path + L".replaced-" + date;
  WriteNew(path, look.path, look.reading.content);
  return path;
}

struct ImportedValue {
  const OwnValue* own;
  BsonElement element;
};

void Collect(const WideValue& members, std::string_view document,
             std::vector<ImportedValue>& values) {
  for (auto member = members.MemberBegin(); member < members.MemberEnd(); ++member) {
    const std::string key = Utf8(member->name.GetString());
    const OwnValue* own = Find(document, key);
    if (own == nullptr) {
      throw std::runtime_error("nothing is imported: " + key + " is not a value of this module");
    }
    const auto* value = member->value.IsObject() ? FindMember(member->value, L"value") : nullptr;
    auto element = value == nullptr ? std::nullopt : ScalarOf(own->kind, *value);
    if (!element) throw std::runtime_error("nothing is imported: " + key + " has another type");
    values.push_back({own, *std::move(element)});
  }
}

// Returns the object member `key`. Throws if it is not an object.
const WideValue& ObjectIn(const WideValue& value, const wchar_t* key) {
  if (value.IsObject()) {
    const WideValue* found = FindMember(value, key);
    if (found != nullptr && found->IsObject()) return *found;
  }
  throw std::runtime_error("nothing is imported: it is not an exported store");
}

// Returns the values in `exported`. Throws unless all are this module's and the module can read its
// lists.
std::vector<ImportedValue> ValuesOf(const WideValue& exported) {
  std::vector<ImportedValue> values;
  WideDocument rest;
  rest.CopyFrom(ObjectIn(exported, L"document"), rest.GetAllocator());
  BsonDocument store;
  const std::wstring own = Wide(kServiceDocument);
  if (auto found = rest.FindMember(own.c_str()); found < rest.MemberEnd()) {
    Collect(ObjectIn(found->value, L"value"), kServiceDocument, values);
    BsonDocument document;
    for (const ImportedValue& value : values) document.Set(value.own->key, value.element);
    store.Set(kServiceDocument, BsonElement(document));
    rest.RemoveMember(found);
  }
  Collect(rest, kTopLevel, values);
  SubscriptionsIn(store);
  return values;
}

}  // namespace

StoreLook LookAtFile(const std::wstring& path) {
  StoreLook look{path, SealedFile(path).ReadOnce(), {}};
  if (auto siblings = Platform::CurrentMachine().files->Siblings(path)) look.siblings = *siblings;
  return look;
}

StoreLook LookAtStore(const HoldLimits& limits) {
  const StoreHold hold(StoreUse::Read, limits);
  return LookAtFile(CapDataStore::PathOfFile());
}

std::vector<StoredSubscription> SubscriptionsIn(const BsonDocument& store) {
  std::vector<StoredSubscription> all;
  const auto found = store.Find(kServiceDocument);
  if (!found) return all;
  const auto own = found->AsDocument();
  if (!own) {
    throw std::runtime_error(std::string(kServiceDocument) +
                             " is not a document, so the module cannot read its lists");
  }
  for (const SubscriptionForm* kind : kSubscriptionForms) {
    for (auto& text : Texts(*own, *kind)) {
      std::wstring hash = text ? Tessel::Server::Records::SubscriptionHash(*text) : std::wstring();
      all.push_back({all.size() + 1, kind, std::move(text), std::move(hash)});
    }
  }
  return all;
}

std::vector<StoredSubscription> SubscriptionsOf(const StoreLook& look) {
  if (look.reading.state == StoreState::Missing) return {};
  return SubscriptionsIn(DocumentOf(look));
}

StoreVerdict Diagnose(const StoreLook& look, Owner owner) {
  const SealedFile::Reading& reading = look.reading;
  if (reading.state == StoreState::Missing) return {"missing", "there is no file"};
  if (reading.state == StoreState::Linked) {
    return {"linked", HasSecondName(look.path) ? "linked: the file has a second name"
                                               : "linked: the path is a link"};
  }
  if (reading.state == StoreState::TooLarge) return {"too large", "too large: beyond 64 MiB"};
  if (reading.state == StoreState::NotOpened) {
    return {"not opened", "it could not be opened, perhaps only temporarily: error " +
                              Hexadecimal(reading.error)};
  }
  const std::string size = std::to_string(reading.content.size()) + " bytes";
  const bool zero =
      std::ranges::all_of(reading.content, [](std::byte b) { return b == std::byte{}; });
  if (!reading.content.empty() && zero) {
    return {"zeroed", "zeroed: " + size + ", and all of them are zero"};
  }
  if (reading.cutShort) {
    return {"cut short", "cut short: " + size + ", where the header alone has 72"};
  }
  // A readable store may have any header, because a store that is replaced keeps its header.
  if (!reading.document && !reading.id.empty() && !IsUuid(reading.id)) {
    return {"foreign",
            "not a store: its first 72 bytes are not an identity, so another program "
            "wrote it"};
  }
  if (reading.state == StoreState::OtherMachine) {
    return {"other machine", "sealed on another machine: Windows has no key for it, error " +
                                 Hexadecimal(reading.error)};
  }
  if (reading.state == StoreState::Damaged) {
    return {"damaged", reading.error == 0
                           ? "damaged: Windows decrypts it, but it does not contain a document"
                           : "damaged: Windows cannot decrypt its content, error " +
                                 Hexadecimal(reading.error)};
  }
  if (owner == Owner::Trusted && IsForeign(look.path)) {
    return {"foreign", "foreign: its owner is not SYSTEM, the administrators or this account"};
  }
  try {
    if (reading.document) SubscriptionsIn(*reading.document);
  } catch (const std::runtime_error& error) {
    return {"list broken", error.what()};
  }
  return {"sound", reading.document ? "sound" : "sound, and empty"};
}

BsonDocument DocumentOf(const StoreLook& look) {
  if (look.reading.state != StoreState::Sound) {
    throw std::runtime_error("the store cannot be read: " + Diagnose(look).text +
                             "; see \"The store looks broken\" in docs/operations.md and " +
                             "vxhost store verify");
  }
  return look.reading.document.value_or(BsonDocument());
}

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
  left = 0;
  StoreWriter writer(pool, shown, left);
  content.AddMember(L"document", writer.Document(stored, kShownLevels, kTopLevel), pool);
  return content;
}

std::vector<std::string> StoreLines() {
  const StoreLook look = LookAtStore();
  std::vector<std::string> lines;
  if (look.reading.state == StoreState::Missing) return lines;
  std::size_t left = 0;
  const WideDocument content = StoreContent(look, ShownValues::All, left);
  const WideValue& document = content[L"document"];
  for (auto value = document.MemberBegin(); value < document.MemberEnd(); ++value) {
    lines.push_back(Utf8(value->name.GetString()) + " " + Utf8(Json::JsonText(value->value)));
  }
  return lines;
}

void BackUpStore(const std::wstring& path, const HoldLimits& limits) {
  const StoreLook look = LookAtStore(limits);
  RequireStore(look);
  WriteNew(path, path, look.reading.content);
}

std::wstring RestoreStore(const std::wstring& path, const HoldLimits& limits) {
  const StoreLook copy = LookAtFile(path);
  RequireStore(copy);
  const StoreHold hold(StoreUse::Write, limits);
  const StoreLook before = LookAtFile(CapDataStore::PathOfFile());
  std::wstring kept = Keep(before);
  if (kept.empty()) CapDataStore makesTheFolder;
  const auto name = Platform::NewUuid();
  if (!name) throw WindowsError("cannot create a name for the new file", name.Error());
  // If this process exits halfway, the module recognizes this suffix and completes the change.
  const std::wstring sibling = before.path + L"." + *name + L".new";
  const auto file = WriteNew(sibling, before.path, copy.reading.content);
  if (const Platform::ErrorCode error = file->MoveOver(before.path); error != 0) {
    file->Remove();
    throw WindowsError("the store is not replaced", error);
  }
  return kept;
}

std::wstring ImportValues(const WideValue& exported, const HoldLimits& limits) {
  const std::vector<ImportedValue> values = ValuesOf(exported);
  const StoreHold hold(StoreUse::Write, limits);
  std::wstring kept = Keep(LookAtFile(CapDataStore::PathOfFile()));
  CapDataStore store;
  for (const auto& [own, element] : values) {
    const bool written = own->document == kTopLevel
                             ? store.persist(own->key, element)
                             : store.mergeMember(kServiceDocument, own->key, element);
    if (!written) {
      throw std::runtime_error(std::string(own->key) +
                               " could not be written; the previous store is in " + Utf8(kept));
    }
  }
  return kept;
}

}  // namespace Vx::Hosting::Tool
