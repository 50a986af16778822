#pragma once

#include "vxhost/commands/command_line.h"

namespace Vx::Hosting::Tool {

// Add subcommands, each from a file of its own.
void AddModuleCommands(CommandLine& line);  // exec, scenario and events
void AddServiceCommands(CommandLine& line);
void AddStoreCommands(CommandLine& line);
void AddSubscriptionCommands(CommandLine& line);
void AddTrustCommands(CommandLine& line);  // pins, trust and pin
void AddWatchCommand(CommandLine& line);
void AddValidateCommand(CommandLine& line);
void AddExplainCommand(CommandLine& line);
void AddHistoryCommand(CommandLine& line);
void AddDoctorCommand(CommandLine& line);

}  // namespace Vx::Hosting::Tool
