#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "security/pinned_keys.h"

namespace Vx::Host {

// The keys that a module trusts, as the resource in its file lists them. The module itself uses the
// copy that is compiled into its code.
class ModulePins {
 public:
  // Reads the file and runs none of its code. Throws std::runtime_error, whose text advises the
  // user, when it cannot be read or has no such resource.
  explicit ModulePins(const std::wstring& module);
  ModulePins(const ModulePins&) = delete;
  ModulePins& operator=(const ModulePins&) = delete;

  // Valid while this object lives.
  Tessel::Security::KeySet General() const { return general; }
  Tessel::Security::KeySet Restricted() const { return restricted; }

 private:
  std::string generalText;
  std::string restrictedText;
  std::vector<std::string_view> general;  // lines of the texts
  std::vector<std::string_view> restricted;
};

}  // namespace Vx::Host
