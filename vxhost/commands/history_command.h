#pragma once

#include <filesystem>
#include <vector>

#include "vxhost/commands/command_line.h"

namespace Vx::Hosting::Tool {

void AddHistoryCommand(CommandLine& line);

// Returns the folder that `argument` names or, if empty, the one that an installed service logs to.
std::filesystem::path LogFolderOf(const std::string& argument);

// Returns the full paths of the log files in `folder`, oldest first. Throws std::runtime_error with
// advice for the user if the folder cannot be listed or has none.
std::vector<std::filesystem::path> LogFilesIn(const std::filesystem::path& folder);

}  // namespace Vx::Hosting::Tool
