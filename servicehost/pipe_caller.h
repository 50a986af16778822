#pragma once

#include <cstdint>
#include <string>

namespace Vx::Host {

// The rights of a process at the other end of a pipe. A process can end and another one get its id,
// so this shares out places and guards nothing.
struct PipeCaller {
  std::wstring account;     // a SID as text; empty if Windows does not tell it
  bool privileged = false;  // SYSTEM, or an administrator whose rights are in effect
};

// Asks this machine alone, and so does not block.
PipeCaller CallerOf(std::uint32_t processId);

// The user and the file name of a process, cut to 64 characters, for logs only. Characters that
// could make it look like another one are replaced. May ask a domain controller.
std::wstring CallerName(std::uint32_t processId);

}  // namespace Vx::Host
