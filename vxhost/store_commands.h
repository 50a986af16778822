#pragma once

#include <string>
#include <vector>

#include "vxhost/command_line.h"

namespace Vx::Host {

// store.
void AddStoreCommands(CommandLine& line);

// The store as "store show" prints it, with one line per value of its top level: "KEY {...}".
// Throws std::runtime_error when it cannot be read.
std::vector<std::string> StoreLines();

}  // namespace Vx::Host
