#pragma once

#include "vxhost/commands/command_line.h"

namespace Vx::Hosting::Tool {

void AddSubscriptionCommands(CommandLine& line);

}  // namespace Vx::Hosting::Tool
