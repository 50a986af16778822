#pragma once

#include <cstdint>
#include <string>

#include "vxhost/commands/command_line.h"

namespace Vx::Hosting::Tool {

// Adds exec, scenario and events.
void AddModuleCommands(CommandLine& line);

// Runs a command in the running service that `module` names. If it names none, waits until the
// store is free and runs the command in this process, as the client `caller`. If `process` is not
// 0, it must own the service's pipe, instead of the process that the service manager reports.
// Throws std::runtime_error with advice for the user.
CommandResult Send(std::uint32_t id, const std::wstring& request, const std::string& caller,
                   const ModuleOptions& module, Console& console, std::uint32_t process = 0);

}  // namespace Vx::Hosting::Tool
