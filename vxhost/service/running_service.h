#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "hosting/loaded_module.h"
#include "hosting/module_log.h"
#include "vxhost/common/module_options.h"

namespace Vx::Hosting::Tool {

// Access to a running installed service, with the rights of this process's account. Each function
// throws std::runtime_error with advice for the user if no service of that name is running.

// Throws std::runtime_error if `options` select a module or store: a running service has its own.
void RefuseForService(const ModuleOptions& options);

// Runs one command in the service. If not 0, `process` must own the pipe, instead of the process
// that the service manager reports.
CommandResult ExecuteInService(const std::string& name, std::uint32_t process, std::uint32_t id,
                               const std::wstring& request);

// Calls `receive` with each line that the service logs and its UTC time, for `seconds` or, if 0,
// until Ctrl+C. Reads the log files, so the account must be an administrator.
void FollowService(const std::string& name, int seconds,
                   const std::function<void(const LogLine&, const std::wstring& time)>& receive);

}  // namespace Vx::Hosting::Tool
