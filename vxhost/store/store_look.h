#pragma once

#include <string>
#include <vector>

#include "hosting/store_hold.h"
#include "storage/sealed_file.h"
#include "vxhost/subscriptions/stored_subscriptions.h"

namespace Vx::Hosting::Tool {

// The store as found. Creates no folder or file, and completes no interrupted write.
struct StoreLook {
  std::wstring path;
  Tessel::Server::Storage::SealedFile::Reading reading;
  std::vector<std::wstring> siblings;  // full paths of the files next to it
};

// Reads the store while holding it. Throws like StoreHold.
StoreLook LookAtStore(const HoldLimits& limits = {});

// Returns the store's document, or an empty one if the store is empty. Throws std::runtime_error
// with the reason if it cannot be read.
Tessel::Server::Storage::BsonDocument DocumentOf(const StoreLook& look);

// Returns the stored subscriptions, or none if there is no store. Throws like DocumentOf and
// SubscriptionsIn.
std::vector<StoredSubscription> SubscriptionsOf(const StoreLook& look);

// The state of a store, as a word for programs and a sentence for people.
struct StoreVerdict {
  std::string state;  // "sound", "missing", "zeroed", "foreign", ...
  std::string text;
  bool IsSound() const { return state == "sound"; }
};
enum class Owner { Trusted, Any };  // who may own the file
StoreVerdict Diagnose(const StoreLook& look, Owner owner = Owner::Trusted);

// Like Diagnose, but returns "list broken" if the module could not read one of its lists.
StoreVerdict DiagnoseWithLists(const StoreLook& look, Owner owner = Owner::Trusted);

// Reads a copy of the store's file at `path`.
StoreLook LookAtFile(const std::wstring& path);

}  // namespace Vx::Hosting::Tool
