#pragma once

#include <cstdint>
#include <string>

#include "vxhost/common/console.h"
#include "vxhost/common/module_options.h"

namespace Vx::Host {

// Throws std::runtime_error if `options` name a module or a store: a running service has its own.
void RefuseForService(const ModuleOptions& options);

// Runs one command in the service.
Answer ExecuteInService(const std::string& name, std::uint32_t id, const std::wstring& request);

// What a running service returns over its pipe, or writes to its log. Each throws
// std::runtime_error, whose text advises the user, when no service of that name runs.

// Prints the stored subscriptions that a command lists: those to power and platform events.
int ShowServiceSubscriptions(const std::string& name, Console& console);

// Prints the values of the store that a command returns.
int ShowServiceStore(const std::string& name, Console& console);

// Prints the records of the service as it writes them, for `seconds` or, if 0, until Ctrl+C. Reads
// the log files, so the account has to be an administrator's.
int WatchService(const std::string& name, int seconds, Console& console);

}  // namespace Vx::Host
