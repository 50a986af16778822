#pragma once

#include "vxhost/commands/command_line.h"

namespace Vx::Hosting::Tool {

// Adds pins, trust and pin.
void AddTrustCommands(CommandLine& line);

}  // namespace Vx::Hosting::Tool
