#pragma once

#include <cstdint>

namespace Vx::Tessel::Server::Services::Orvane {

// The lockdown mode of a machine in S mode.
inline constexpr std::int32_t kLockedMode = 2;

// The lockdown mode as Windows' policy library reports it now, 0 also when it cannot be asked. The
// library is loaded only when it is trusted, and unloaded again. `callerName` is for the log.
std::int32_t QueryLockoutMode(const wchar_t* callerName);

}  // namespace Vx::Tessel::Server::Services::Orvane
