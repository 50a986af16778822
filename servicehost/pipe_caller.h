#pragma once

#include <cstdint>
#include <string>

namespace Vx::Hosting::ServiceHost {

// The rights of the process at the other end of a pipe. The process may end and another one get its
// id, so use this only to allocate connections, never for access checks.
struct PipeCaller {
  std::wstring account;     // a SID as text; empty if unknown
  bool privileged = false;  // SYSTEM, or an elevated administrator
};

// Queries only this machine, so it does not block.
PipeCaller CallerOf(std::uint32_t processId);

// Returns the user and file name of a process, cut to 64 characters, for logs only. Replaces
// characters that could make one caller look like another. May query a domain controller.
std::wstring CallerName(std::uint32_t processId);

}  // namespace Vx::Hosting::ServiceHost
