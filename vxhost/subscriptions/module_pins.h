#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "security/pinned_keys.h"

namespace Vx::Hosting::Tool {

// The keys that a module trusts, as listed in a resource of its file. The module itself uses the
// copy compiled into its code.
class ModulePins {
 public:
  // Reads the file without running its code. Throws std::runtime_error with advice for the user if
  // it cannot be read or has no such resource.
  explicit ModulePins(const std::wstring& module);
  ModulePins(const ModulePins&) = delete;
  ModulePins& operator=(const ModulePins&) = delete;

  // Valid for the life of this object.
  Tessel::Security::KeySet General() const { return general; }
  Tessel::Security::KeySet Restricted() const { return restricted; }

 private:
  std::string generalText;
  std::string restrictedText;
  std::vector<std::string_view> general;  // lines of the resource's texts
  std::vector<std::string_view> restricted;
};

// Throws std::runtime_error if Windows accepts a signature of `program` made with a key in either
// set, wherever the file is. In a protected location, the module would start it as SYSTEM for any
// client, with arguments of the client's choice, and some of this tool's arguments name a library
// to load or a file to write.
//
// Also throws if the file cannot be read. Otherwise, a client that starts this program could hide
// the signature by holding the file open without sharing.
void RefusePinnedSignature(const std::wstring& program, Tessel::Security::KeySet general,
                           Tessel::Security::KeySet restricted);

}  // namespace Vx::Hosting::Tool
