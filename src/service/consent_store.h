#pragma once

#include <string>

namespace Vx::Tessel::Server {

// The machine policy on passing on the owner's registration. Every call reads the registry afresh.
// Any thread.
class ConsentStore {
 public:
  // Returns the text of a value below HKEY_LOCAL_MACHINE, or an empty text when the key or the
  // value is missing. Logs a value that is not a REG_SZ and returns an empty text for it too.
  static std::wstring ReadRegistry(const std::wstring& key, const std::wstring& value);

  // Returns `state` where the policy allows to pass it on, else 0.
  static int Apply(int state);
};

}  // namespace Vx::Tessel::Server
