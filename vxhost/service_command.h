#pragma once

#include "vxhost/command_line.h"

namespace Vx::Host {

// service and its subcommands.
void AddServiceCommands(CommandLine& line);

}  // namespace Vx::Host
