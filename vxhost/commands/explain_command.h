#pragma once

#include "vxhost/commands/command_line.h"

namespace Vx::Hosting::Tool {

void AddExplainCommand(CommandLine& line);

}  // namespace Vx::Hosting::Tool
