#pragma once

#include <string>

#include "json/json_text.h"
#include "vxhost/store/store_look.h"

namespace Vx::Host {

// Changes to the store as a whole. Each checks what it was given before it changes anything, keeps
// a copy of the store that it replaces beside it, and throws std::runtime_error with what it found.

// Copies the store's file to `path`, which must not exist. Refuses a store that is not sound.
void BackUpStore(const std::wstring& path, const HoldLimits& limits);

// Replaces the store by the copy at `path` if this machine can read that. Returns the path of the
// kept copy, empty where there was no store.
std::wstring RestoreStore(const std::wstring& path, const HoldLimits& limits);

// Puts exported values into the store. `exported` has the form of ExportedKeys' values in "store
// show". Refuses all of them if one is not this module's or has another type. Returns as
// RestoreStore does.
std::wstring ImportValues(const Json::WideValue& exported, const HoldLimits& limits);

// Whether a value of the store belongs to this module: the member `key` of the document `document`,
// or of the top level where that is empty. Other services may keep secrets.
bool IsExported(const std::string& document, const std::string& key);

}  // namespace Vx::Host
