#pragma once

#include "vxhost/commands/command_line.h"

namespace Vx::Hosting::Tool {

// Adds exec, scenario and events, which load the module as the service host does.
void AddModuleCommands(CommandLine& line);

}  // namespace Vx::Hosting::Tool
