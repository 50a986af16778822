#pragma once

#include "vxhost/commands/command_line.h"

namespace Vx::Host {

// history.
void AddHistoryCommand(CommandLine& line);

}  // namespace Vx::Host
