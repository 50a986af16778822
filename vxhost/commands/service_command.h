#pragma once

#include "vxhost/commands/command_line.h"

namespace Vx::Host {

// service and its subcommands.
void AddServiceCommands(CommandLine& line);

}  // namespace Vx::Host
