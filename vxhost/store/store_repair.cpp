#include "vxhost/store/store_repair.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <utility>
#include <vector>

#include "hosting/text.h"
#include "hosting/windows_error.h"
#include "platform/clock.h"
#include "platform/file_handle.h"
#include "platform/files.h"
#include "platform/machine.h"
#include "platform/system_services.h"
#include "storage/cap_data_store.h"
#include "storage/service_document.h"
#include "vxhost/store/store_content.h"

namespace Vx::Hosting::Tool {

namespace {

using namespace Tessel::Server::Services::Orvane;
using Tessel::Server::Storage::BsonDocument;
using Tessel::Server::Storage::BsonElement;
using Tessel::Server::Storage::BsonKind;
using Tessel::Server::Storage::CapDataStore;
using Tessel::Server::Storage::StoreState;

// This module's values, as listed in docs/operations.md.
struct OwnValue {
  bool inDocument = false;
  const char* key = "";
  BsonKind kind{};
};
constexpr OwnValue kOwnValues[] = {
    {true, kPowerSubscriptions, BsonKind::String},
    {true, kZephraSubscriptions, BsonKind::String},
    {true, kPackageSubscriptions, BsonKind::String},
    {true, kFirstEnforcementMode, BsonKind::Int32},
    {true, kExecutedStub, BsonKind::Boolean},
    {true, kBornOnDate, BsonKind::String},
    {false, "OrvaneLastBootTime", BsonKind::Int64},
    {false, "oobe_complete_event_sent_to_quboapp", BsonKind::Boolean},
    {false, "oobe_complete_aurelo_launched", BsonKind::Boolean},
    {false, "qubo_autolaunch_software_happened", BsonKind::Boolean},
    {false, "qubo_autolaunch_registration_happened", BsonKind::Boolean},
    {false, "qubo_wakeup_for_smode_skip", BsonKind::Boolean},
    {false, "orvane_service_policy_changed_event", BsonKind::String},
};

const OwnValue* Find(bool inDocument, const std::string& key) {
  const auto* found = std::ranges::find_if(kOwnValues, [&](const OwnValue& value) {
    return value.inDocument == inDocument && key == value.key;
  });
  return found == std::end(kOwnValues) ? nullptr : found;
}

Platform::Files& Files() {
  return *Platform::CurrentMachine().files;
}

// Writes a new file with the same access rights as `accessLike`.
std::unique_ptr<Platform::FileHandle> WriteNew(const std::wstring& path,
                                               const std::wstring& accessLike,
                                               std::span<const std::byte> content) {
  auto made = Files().Create(path, accessLike);
  if (!made) throw WindowsError("cannot create " + Utf8(path), made.Error());
  Platform::ErrorCode error = (*made)->Write(content);
  if (error == 0) error = (*made)->Flush();
  if (error == 0) return *std::move(made);
  (*made)->Remove();
  throw WindowsError("cannot write " + Utf8(path), error);
}

// Throws unless `look` shows a sound store that this machine can read.
void RequireStore(const StoreLook& look) {
  const StoreVerdict verdict = Diagnose(look, Owner::Any);
  if (!verdict.IsSound())
    throw std::runtime_error(Utf8(look.path) + " is not used: " + verdict.text);
  if (!look.reading.document) {
    throw std::runtime_error(Utf8(look.path) + " is not used: it contains no values");
  }
  SubscriptionsIn(*look.reading.document);
}

// Copies the store, even if damaged, within its folder. Returns the copy's path, or an empty
// string if no copy is needed.
std::wstring Keep(const StoreLook& look) {
  const StoreState state = look.reading.state;
  if (state == StoreState::Missing) return {};
  if (state == StoreState::Linked || state == StoreState::TooLarge ||
      state == StoreState::NotOpened) {
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

void Collect(const Json::WideValue& members, bool inDocument, std::vector<ImportedValue>& values) {
  for (auto member = members.MemberBegin(); member < members.MemberEnd(); ++member) {
    const std::string key = Utf8(member->name.GetString());
    const OwnValue* own = Find(inDocument, key);
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
const Json::WideValue& ObjectIn(const Json::WideValue& value, const wchar_t* key) {
  if (value.IsObject()) {
    const Json::WideValue* found = FindMember(value, key);
    if (found != nullptr && found->IsObject()) return *found;
  }
  throw std::runtime_error("nothing is imported: it is not an exported store");
}

// Returns the values in `exported`. Throws unless all are this module's.
std::vector<ImportedValue> ValuesOf(const Json::WideValue& exported) {
  std::vector<ImportedValue> values;
  Json::WideDocument rest;
  rest.CopyFrom(ObjectIn(exported, L"document"), rest.GetAllocator());
  const std::wstring own = Wide(kServiceDocument);
  if (auto found = rest.FindMember(own.c_str()); found < rest.MemberEnd()) {
    Collect(ObjectIn(found->value, L"value"), true, values);
    rest.RemoveMember(found);
  }
  Collect(rest, false, values);
  return values;
}

// Throws unless the module can read the lists.
void RequireLists(const std::vector<ImportedValue>& values) {
  BsonDocument document;
  for (const ImportedValue& value : values) {
    if (value.own->inDocument) document.Set(value.own->key, value.element);
  }
  BsonDocument store;
  store.Set(kServiceDocument, BsonElement(document));
  SubscriptionsIn(store);
}

}  // namespace

bool IsExported(const std::string& document, const std::string& key) {
  if (document.empty()) return Find(false, key) != nullptr;
  return document == kServiceDocument && Find(true, key) != nullptr;
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

std::wstring ImportValues(const Json::WideValue& exported, const HoldLimits& limits) {
  const std::vector<ImportedValue> values = ValuesOf(exported);
  RequireLists(values);
  const StoreHold hold(StoreUse::Write, limits);
  std::wstring kept = Keep(LookAtFile(CapDataStore::PathOfFile()));
  CapDataStore store;
  for (const ImportedValue& value : values) {
    const bool written = value.own->inDocument
                             ? store.mergeMember(kServiceDocument, value.own->key, value.element)
                             : store.persist(value.own->key, value.element);
    if (!written) {
      throw std::runtime_error(std::string(value.own->key) +
                               " could not be written; the previous store is in " + Utf8(kept));
    }
  }
  return kept;
}

}  // namespace Vx::Hosting::Tool
