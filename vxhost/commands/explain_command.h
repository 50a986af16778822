#pragma once

#include "vxhost/commands/command_line.h"

namespace Vx::Host {

void AddExplainCommand(CommandLine& line);

}  // namespace Vx::Host
