#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "vxhost/commands/command_line.h"
#include "vxhost/log/history.h"

namespace Vx::Hosting::Tool {

// Each adds the subcommands of one subject.
void AddModuleCommands(CommandLine& line);  // exec, scenario and events
void AddServiceCommands(CommandLine& line);
void AddStoreCommands(CommandLine& line);
void AddSubscriptionCommands(CommandLine& line);
void AddTrustCommands(CommandLine& line);  // pins, trust and pin
void AddWatchCommand(CommandLine& line);
void AddExplainCommands(CommandLine& line);  // validate and explain
void AddHistoryCommand(CommandLine& line);
void AddDoctorCommand(CommandLine& line);

// Runs a command in the running service that `module` names. If it names none, waits until the
// store is free and runs the command in this process, as the client `caller`. If `process` is not
// 0, it must own the service's pipe, instead of the process that the service manager reports.
// Throws std::runtime_error with advice for the user.
CommandResult Send(std::uint32_t id, const std::wstring& request, const std::string& caller,
                   const ModuleOptions& module, Console& console, std::uint32_t process = 0);

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
