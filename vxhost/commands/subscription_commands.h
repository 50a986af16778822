#pragma once

#include "vxhost/commands/command_line.h"

namespace Vx::Host {

void AddSubscriptionCommands(CommandLine& line);

}  // namespace Vx::Host
