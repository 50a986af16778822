#pragma once

#include "vxhost/commands/command_line.h"

namespace Vx::Host {

void AddStoreCommands(CommandLine& line);

}  // namespace Vx::Host
