#pragma once

#include "vxhost/commands/command_line.h"

namespace Vx::Hosting::Tool {

void AddWatchCommand(CommandLine& line);

}  // namespace Vx::Hosting::Tool
