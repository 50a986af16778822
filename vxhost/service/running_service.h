#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "hosting/loaded_module.h"
#include "hosting/module_log.h"
#include "vxhost/common/module_options.h"

namespace Vx::Host {

// An installed service that runs, as the account of this process may use it. Each function throws
// std::runtime_error, whose text advises the user, if no service of that name runs.

// Throws std::runtime_error if `options` name a module or a store: a running service has its own.
void RefuseForService(const ModuleOptions& options);

// Runs one command in the service. `process`, if not 0, is the one that must have the pipe, instead
// of the one that the service manager names.
CommandResult ExecuteInService(const std::string& name, std::uint32_t process, std::uint32_t id,
                               const std::wstring& request);

// Calls `receive` with each log line that the service writes, and its UTC time, for `seconds` or,
// if 0, until Ctrl+C. Reads the log files, so the account has to be an administrator's.
void FollowService(const std::string& name, int seconds,
                   const std::function<void(const LogLine&, const std::wstring& time)>& receive);

}  // namespace Vx::Host
