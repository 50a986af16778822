#pragma once

#include <stdexcept>
#include <string>

#include "hosting/text.h"

namespace Vx::Hosting::Tool {

// Selects the module and the store.
struct ModuleOptions {
  std::string dll;
  bool privateStore = false;
  bool simulate = false;
  std::string store;  // a store folder to keep and use; empty for the machine's

  // Returns the module's full path: the one next to this program unless --dll names another.
  std::wstring Path() const { return dll.empty() ? DefaultModule() : FullPath(dll); }

  // Throws std::runtime_error with `why` if a private store or a simulated machine is in use.
  void RequireRealMachine(const std::string& why) const {
    if (privateStore || simulate) throw std::runtime_error(why);
  }
};

}  // namespace Vx::Hosting::Tool
