#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "json/json_text.h"
#include "storage/bson_document.h"
#include "vxhost/store/store_look.h"

namespace Vx::Host {

enum class ShownValues { All, Exported };  // the latter: those of this module

// The values of the store, each with its type, as "store show" prints them. `left` becomes the
// number of those that are not shown. Throws std::runtime_error when the store cannot be read.
Json::WideDocument StoreContent(const StoreLook& look, ShownValues shown, std::size_t& left);

// Returns the kind that is called so there, or an unknown one.
Tessel::Server::Storage::BsonKind KindNamed(const std::wstring& name);

// Returns a text, a truth value or a whole number as an element of this kind, nothing if `value` is
// of another one.
std::optional<Tessel::Server::Storage::BsonElement> ScalarOf(Tessel::Server::Storage::BsonKind kind,
                                                             const Json::WideValue& value);

// All of the store in the same form, with one line per value of its top level: "KEY {...}". Throws
// std::runtime_error when it cannot be read.
std::vector<std::string> StoreLines();

}  // namespace Vx::Host
