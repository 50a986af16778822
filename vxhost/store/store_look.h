#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "events/subscription_forms.h"
#include "hosting/store_hold.h"
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

// Reads the store's file, or a copy of it, at `path`.
StoreLook LookAtFile(const std::wstring& path);

}  // namespace Vx::Hosting::Tool
