#pragma once

#include "vxhost/command_line.h"

namespace Vx::Host {

// store.
void AddStoreCommands(CommandLine& line);

}  // namespace Vx::Host
