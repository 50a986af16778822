#pragma once

#include "vxhost/commands/command_line.h"

namespace Vx::Host {

void AddValidateCommand(CommandLine& line);

}  // namespace Vx::Host
