#pragma once

#include <string>
#include <vector>

#include "hosting/store_hold.h"
#include "storage/sealed_file.h"

namespace Vx::Host {

// The store as it lies there, read without a change: no folder and no file is made, and an
// interrupted write is not completed.
struct StoreLook {
  std::wstring path;
  Tessel::Server::Storage::SealedFile::Reading reading;
  std::vector<std::wstring> siblings;  // full paths of the files beside it
};

// Looks at the store while holding it. Throws as StoreHold does.
StoreLook LookAtStore(const HoldLimits& limits = {});

// Returns the store's document, an empty one for an empty store. Throws std::runtime_error with the
// reason when it cannot be read.
Tessel::Server::Storage::BsonDocument DocumentOf(const StoreLook& look);

// What is wrong with a store, in a word for programs and a sentence for people.
struct StoreVerdict {
  std::string state;  // "sound", "missing", "zeroed", "foreign", ...
  std::string text;
  bool IsSound() const { return state == "sound"; }
};
enum class Owner { Trusted, Any };  // whose file it may be
StoreVerdict Diagnose(const StoreLook& look, Owner owner = Owner::Trusted);

// Same as Diagnose, but looks at the lists of subscriptions as well: "list broken" if the module
// could not read one.
StoreVerdict DiagnoseWithLists(const StoreLook& look, Owner owner = Owner::Trusted);

// Looks at a copy of the store's file at `path`.
StoreLook LookAtFile(const std::wstring& path);

}  // namespace Vx::Host
