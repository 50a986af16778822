#pragma once

#include <string>

namespace Vx::Tessel::Server {

// The machine policy on telling others about the owner's registration. Every call reads the
// registry afresh; any thread.
class ConsentStore {
 public:
  // The text of a value below HKEY_LOCAL_MACHINE; empty when the key or the value is missing, or
  // (which is logged) when it is no REG_SZ.
  static std::wstring ReadRegistry(const std::wstring& key, const std::wstring& value);

  // `state` as far as the policy lets it be told: 0 where it does not.
  static int Apply(int state);
};

}  // namespace Vx::Tessel::Server
