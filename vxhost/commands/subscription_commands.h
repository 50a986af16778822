#pragma once

#include "vxhost/commands/command_line.h"

namespace Vx::Host {

// subscriptions, with list, add and remove.
void AddSubscriptionCommands(CommandLine& line);

}  // namespace Vx::Host
