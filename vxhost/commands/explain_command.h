#pragma once

#include "vxhost/commands/command_line.h"

namespace Vx::Host {

// explain.
void AddExplainCommand(CommandLine& line);

}  // namespace Vx::Host
