#pragma once

#include "vxhost/commands/command_line.h"

namespace Vx::Host {

// install, start, stop, remove, status, send and entry of the group `service`.
void AddServiceSetupCommands(CommandLine& line, CLI::App& group);

}  // namespace Vx::Host
