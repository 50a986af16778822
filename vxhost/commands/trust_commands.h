#pragma once

#include "vxhost/commands/command_line.h"

namespace Vx::Host {

// pins, trust and pin.
void AddTrustCommands(CommandLine& line);

// explain-resume.
void AddResumeCommand(CommandLine& line);

}  // namespace Vx::Host
