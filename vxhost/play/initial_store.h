#pragma once

#include <memory>
#include <string>

#include "json/json_text.h"
#include "vxhost/play/scenario_check.h"

namespace Vx::Hosting::Tool {

// The contents of a scenario's store before its service is created.
class InitialStore {
 public:
  InitialStore() = default;

  // `value` is {KEY: VALUE} with plain values, as in a step's "store" part, or the path of a file
  // printed by "store show", relative to `folder` unless absolute. Borrows plain values. Throws
  // std::runtime_error if the file cannot be used.
  InitialStore(const Json::WideValue& value, const std::wstring& folder, Definitions names);

  // Writes the values to the current machine's store.
  void Write() const;

 private:
  std::unique_ptr<Json::WideDocument> file;  // null for plain values
  const Json::WideValue* values = nullptr;   // null for an empty store
  Definitions definitions;
};

// Stores a value as another service would: a scalar under its key, an object's members in the
// document of that name. Expands definitions in strings.
void StoreValue(const std::string& key, const Json::WideValue& value,
                const Definitions& definitions);

}  // namespace Vx::Hosting::Tool
