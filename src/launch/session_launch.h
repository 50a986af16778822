#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "records/record.h"

namespace Vx::Tessel::Security {
class TrustedProgram;
}

namespace Vx::Tessel::Server::Services::Orvane {

// Returns the id of the logon process in `session`, whose token starts programs there. Finds it by
// its file name. Returns nothing if there is none or it cannot be queried.
std::optional<std::uint32_t> LogonProcessIn(std::uint32_t session);

// Starts `program` in `session` with the SYSTEM token of that session's winlogon.exe and the
// system's environment. Omits arguments that do not fit in a command line. If the working directory
// is empty or cannot be a path, uses the program's own folder. If `packageFolder`, the folder name
// of a packaged app, is not empty, the environment names that app's local and roaming data folders.
// Returns Ran with the process, or NotStarted with the reason. Throws only std::bad_alloc.
Records::Outcome LaunchProcessInSession(const Security::TrustedProgram& program,
                                        const std::wstring& arguments,
                                        const std::wstring& workingDirectory, std::uint32_t session,
                                        const std::wstring& packageFolder = {});

// Returns why this process cannot start programs in `session` now: there is no logon process, or
// its token is not available. Returns None if it can. Starts nothing.
Records::Reason WhyNoLaunchIn(std::uint32_t session);

}  // namespace Vx::Tessel::Server::Services::Orvane
