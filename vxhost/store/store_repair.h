#pragma once

#include <string>

#include "json/json_text.h"
#include "vxhost/store/store_look.h"

namespace Vx::Hosting::Tool {

// Operations on the whole store. Each checks its input before changing anything, keeps a copy of
// any store that it replaces in its folder, and throws std::runtime_error with the reason.

// Copies the store's file to `path`, which must not exist. Rejects a store that is not sound.
void BackUpStore(const std::wstring& path, const HoldLimits& limits);

// Replaces the store with the copy at `path`, if this machine can read it. Returns the path of a
// copy of the former store, or an empty string if there was none.
std::wstring RestoreStore(const std::wstring& path, const HoldLimits& limits);

// Imports exported values, in the form of "store show", into the store. Rejects all values if one
// is not this module's or has the wrong type. Returns the same as RestoreStore.
std::wstring ImportValues(const Json::WideValue& exported, const HoldLimits& limits);

// Returns whether a stored value belongs to this module: member `key` of document `document`, or of
// the top level if `document` is empty. Other services may keep secrets in the store.
bool IsExported(const std::string& document, const std::string& key);

}  // namespace Vx::Hosting::Tool
