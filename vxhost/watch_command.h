#pragma once

#include "vxhost/command_line.h"

namespace Vx::Host {

void AddWatchCommand(CommandLine& line);

}  // namespace Vx::Host
