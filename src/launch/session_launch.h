#pragma once

#include <cstdint>
#include <string>

namespace Vx::Tessel::Security {
class TrustedProgram;
}

namespace Vx::Tessel::Server::Services::Orvane {

// Starts `program` in `session` with the SYSTEM token of that session's winlogon.exe and the
// system's environment. Arguments that do not fit a command line are left out; an empty working
// directory means the program's own folder. With `packageFolder`, the folder name of a packaged
// app, the local and roaming data folders of the environment are that app's. Answers non-zero when
// the process was created; `processId` then receives its id. Throws nothing but std::bad_alloc.
int LaunchProcessInSession(const Security::TrustedProgram& program, const std::wstring& arguments,
                           const std::wstring& workingDirectory, std::uint32_t session,
                           std::uint32_t& processId, const std::wstring& packageFolder = {});

}  // namespace Vx::Tessel::Server::Services::Orvane
