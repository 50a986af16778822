#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "events/subscription_forms.h"
#include "hosting/store_hold.h"
#include "json/json_text.h"
#include "storage/bson_document.h"
#include "storage/sealed_file.h"

namespace Vx::Hosting::Tool {

using Tessel::Server::Services::Orvane::kSubscriptionForms;
using Tessel::Server::Services::Orvane::SubscriptionForm;

// The store as found on disk. Reading it creates nothing and completes no interrupted write.
struct StoreLook {
  std::wstring path;
  Tessel::Server::Storage::SealedFile::Reading reading;
  std::vector<std::wstring> siblings;  // full paths of the files that add a suffix to its name
};

// Reads the store while holding its mutexes. Throws whatever StoreHold throws.
StoreLook LookAtStore(const HoldLimits& limits = {});

// Reads the store's file, or a copy of it, at `path`.
StoreLook LookAtFile(const std::wstring& path);

// Returns the store's document, or an empty one if the store is empty. Throws std::runtime_error
// with the reason if it cannot be read.
Tessel::Server::Storage::BsonDocument DocumentOf(const StoreLook& look);

struct StoredSubscription {
  std::size_t number = 0;  // position across all lists, from 1
  const SubscriptionForm* kind = nullptr;
  std::optional<std::wstring> text;  // empty if the element is not an object
  std::wstring hash;                 // as the module logs it; empty if `text` is
};

// Returns a store's subscriptions to power, platform and package events, in stored order. Throws
// std::runtime_error if a list is not a JSON array.
std::vector<StoredSubscription> SubscriptionsIn(const Tessel::Server::Storage::BsonDocument& store);

// Like SubscriptionsIn, or returns none if there is no store. Throws whatever DocumentOf throws.
std::vector<StoredSubscription> SubscriptionsOf(const StoreLook& look);

// The state of a store, as a word for programs and a sentence for people.
struct StoreVerdict {
  std::string state;  // "sound", "missing", "zeroed", "list broken", ...
  std::string text;
  bool IsSound() const { return state == "sound"; }
};
enum class Owner { Trusted, Any };  // the accepted owners of the file
StoreVerdict Diagnose(const StoreLook& look, Owner owner = Owner::Trusted);

enum class ShownValues { All, Exported };  // Exported: only this module's

// Returns the store's values, each with its type, as printed by "store show". Sets `left` to the
// number of values omitted. Throws std::runtime_error if the store cannot be read.
Json::WideDocument StoreContent(const StoreLook& look, ShownValues shown, std::size_t& left);

// Returns the kind that StoreContent shows under this name, or an unknown kind if there is none.
Tessel::Server::Storage::BsonKind KindNamed(const std::wstring& name);

// Returns a string, Boolean or integer as an element of `kind`, or nothing if it does not match.
std::optional<Tessel::Server::Storage::BsonElement> ScalarOf(Tessel::Server::Storage::BsonKind kind,
                                                             const Json::WideValue& value);

// Returns the whole store in the form of StoreContent, with one line per top-level value: "KEY
// {...}". Throws std::runtime_error if it cannot be read.
std::vector<std::string> StoreLines();

// Operations on the whole store. Each checks its input before changing anything, keeps a copy of
// any store that it replaces in its folder, and throws std::runtime_error with the reason.

// Copies the store's file to `path`, which must not exist. Rejects a store that is not sound.
void BackUpStore(const std::wstring& path, const HoldLimits& limits);

// Replaces the store with the copy at `path`, if this machine can read it. Returns the path of a
// copy of the former store, or an empty string if there was none.
std::wstring RestoreStore(const std::wstring& path, const HoldLimits& limits);

// Imports exported values, in the form of StoreContent, into the store. Rejects all values if one
// is not this module's or has the wrong type. Returns the same as RestoreStore.
std::wstring ImportValues(const Json::WideValue& exported, const HoldLimits& limits);

}  // namespace Vx::Hosting::Tool
