#pragma once

#include "vxhost/command_line.h"

namespace Vx::Host {

// explain.
void AddExplainCommand(CommandLine& line);

}  // namespace Vx::Host
