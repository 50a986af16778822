#pragma once

#include "vxhost/commands/command_line.h"

namespace Vx::Host {

void AddWatchCommand(CommandLine& line);

}  // namespace Vx::Host
