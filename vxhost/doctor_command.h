#pragma once

#include "vxhost/command_line.h"

namespace Vx::Host {

// doctor.
void AddDoctorCommand(CommandLine& line);

}  // namespace Vx::Host
