#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "records/record.h"

namespace Vx::Tessel::Security {
class TrustedProgram;
}

namespace Vx::Tessel::Server::Services::Orvane {

// Returns the process, by its file name, whose token programs are started with in `session`. Empty
// when this process sees none there.
std::optional<std::uint32_t> LogonProcessIn(std::uint32_t session);

// Starts `program` in `session` with the SYSTEM token of that session's winlogon.exe and the
// system's environment. Leaves out arguments that do not fit into a command line. An empty working
// directory means the program's own folder. `packageFolder`, if not empty, is the folder name of a
// packaged app; the environment then names that app's local and roaming data folders. Returns
// Ran with the process, or NotStarted with the reason. Throws only std::bad_alloc.
Records::Outcome LaunchProcessInSession(const Security::TrustedProgram& program,
                                        const std::wstring& arguments,
                                        const std::wstring& workingDirectory, std::uint32_t session,
                                        const std::wstring& packageFolder = {});

// Why this process could start no program in `session` now: no logon process is there, or Windows
// refuses its token. None if it could. Starts nothing.
Records::Reason WhyNoLaunchIn(std::uint32_t session);

}  // namespace Vx::Tessel::Server::Services::Orvane
