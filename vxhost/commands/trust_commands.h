#pragma once

#include "vxhost/commands/command_line.h"

namespace Vx::Host {

// Adds pins, trust and pin.
void AddTrustCommands(CommandLine& line);

// Adds explain-resume.
void AddResumeCommand(CommandLine& line);

}  // namespace Vx::Host
