#pragma once

#include "vxhost/commands/command_line.h"

namespace Vx::Host {

void AddHistoryCommand(CommandLine& line);

}  // namespace Vx::Host
