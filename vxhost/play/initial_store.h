#pragma once

#include <memory>
#include <string>

#include "json/json_text.h"
#include "vxhost/play/scenario_check.h"

namespace Vx::Host {

// What the store of a scenario holds before its service is created.
class InitialStore {
 public:
  InitialStore() = default;

  // `value` is {KEY: VALUE} with plain values, as the part "store" of a step takes them, or the
  // path of a file that "store show" printed. Borrows plain values. Relative paths begin at
  // `folder`. Throws std::runtime_error when the file cannot be used.
  InitialStore(const Json::WideValue& value, const std::wstring& folder, Definitions names);

  // Writes the values into the store of the current machine.
  void Write() const;

 private:
  std::unique_ptr<Json::WideDocument> file;  // null for plain values
  const Json::WideValue* values = nullptr;   // null for an empty store
  Definitions definitions;
};

// Stores a value as another service does: a scalar under its key, the members of an object in the
// document of that name. Definitions are expanded in texts.
void StoreValue(const std::string& key, const Json::WideValue& value,
                const Definitions& definitions);

}  // namespace Vx::Host
