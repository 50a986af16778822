#pragma once

#include "vxhost/commands/command_line.h"

namespace Vx::Host {

void AddDoctorCommand(CommandLine& line);

}  // namespace Vx::Host
