#pragma once

#include <string>

namespace Vx::Tessel::Server {

// The machine policy on sharing the owner's registration. Does not cache. Any thread.
class ConsentStore {
 public:
  // Returns the text of a value below HKEY_LOCAL_MACHINE. Returns an empty text if the key or the
  // value is missing or, logged, if the value is not a REG_SZ.
  static std::wstring ReadRegistry(const std::wstring& key, const std::wstring& value);

  // Returns `state` if the policy allows sharing it, otherwise 0.
  static int Apply(int state);
};

}  // namespace Vx::Tessel::Server
