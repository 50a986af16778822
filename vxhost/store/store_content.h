#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "json/json_text.h"
#include "storage/bson_document.h"
#include "vxhost/store/store_look.h"

namespace Vx::Hosting::Tool {

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
