#pragma once

#include <stdexcept>
#include <string>

#include "hosting/text.h"

namespace Vx::Host {

// Which module is used, and which store.
struct ModuleOptions {
  std::string dll;
  bool privateStore = false;
  bool simulate = false;
  std::string store;  // the folder of a store that is kept; empty for the machine's

  // Full path of the module: the one beside this program unless --dll names another.
  std::wstring Path() const { return dll.empty() ? DefaultModule() : FullPath(dll); }

  // Throws std::runtime_error with `why` if a store or a machine takes the place of the real one.
  void RequireRealMachine(const std::string& why) const {
    if (privateStore || simulate) throw std::runtime_error(why);
  }
};

}  // namespace Vx::Host
