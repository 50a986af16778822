#pragma once

#include "vxhost/commands/command_line.h"

namespace Vx::Host {

void AddServiceCommands(CommandLine& line);

}  // namespace Vx::Host
