#pragma once

#include <string>

namespace Vx::Tessel::Server {

// The machine policy on sharing the owner's registration state. Does not cache. Thread-safe.
class ConsentStore {
 public:
  // Reads a value below HKEY_LOCAL_MACHINE. Empty if it is missing or (logged) not a REG_SZ.
  static std::wstring ReadRegistry(const std::wstring& key, const std::wstring& value);

  // Returns `state` if the policy allows sharing it, otherwise 0.
  static int Apply(int state);
};

}  // namespace Vx::Tessel::Server
