#pragma once

#include "vxhost/commands/command_line.h"

namespace Vx::Host {

// exec, scenario and events, which load the module in the role of the service host.
void AddModuleCommands(CommandLine& line);

}  // namespace Vx::Host
