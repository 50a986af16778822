#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "vxhost/commands/command_line.h"
#include "vxhost/log/history.h"

namespace Vx::Hosting::Tool {

void AddHistoryCommand(CommandLine& line);

// Returns the full path of `argument` or, if empty, of the folder that an installed service logs
// to.
std::filesystem::path LogFolderOf(const std::string& argument);

// Returns the full paths of the log files in `folder`, oldest first. Throws std::runtime_error with
// advice for the user if the folder cannot be listed or contains none.
std::vector<std::filesystem::path> LogFilesIn(const std::filesystem::path& folder);

// Passes to `take` each of the file's log lines that contains `part`. Returns how many lines with
// `part` are not log lines. Throws std::runtime_error if the file cannot be read.
std::size_t ReadLog(const std::filesystem::path& path,
                    const std::function<void(const HistoryLine&)>& take,
                    std::string_view part = {});

}  // namespace Vx::Hosting::Tool
