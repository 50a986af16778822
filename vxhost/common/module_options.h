#pragma once

#include <string>

#include "hosting/store_hold.h"
#include "hosting/text.h"

namespace Vx::Hosting::Tool {

// Which module and which store a command uses.
struct ModuleOptions {
  std::string dll;
  bool privateStore = false;
  bool simulate = false;
  std::string store;    // the store folder to use; empty for the machine's
  std::string service;  // the running service to use; empty for a module in this process
  HoldLimits limits;

  // Returns the module's full path: the one next to this program unless --dll names another.
  std::wstring Path() const { return dll.empty() ? DefaultModule() : FullPath(dll); }
};

}  // namespace Vx::Hosting::Tool
