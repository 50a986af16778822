#pragma once

#include "vxhost/command_line.h"

namespace Vx::Host {

// service run and service exec.
void AddServiceCommands(CommandLine& line);

}  // namespace Vx::Host
