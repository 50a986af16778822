#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/unique_handle.h"

namespace Vx::Hosting::ServiceHost {

// Windows accounts: users and groups. The functions that translate names may block while Windows
// queries a domain controller.

// Returns the SIDs, as text, of accounts that are given as SIDs or names. Throws WindowsError if
// Windows cannot find a name, or if it names something other than an account, such as a domain.
std::vector<std::wstring> SidsOf(const std::vector<std::wstring>& accounts);

// Returns `text` with the account's name after each SID: "S-1-1-0 (Everyone)". For display only,
// because names depend on the machine and on the language of Windows.
std::string WithAccountNames(const std::string& text);

// The process at the other end of a pipe. It may hand its end to another process, so use this only
// to allocate connections and for logs, never for access checks.
struct PipeCaller {
  std::uint32_t processId = 0;     // 0 if unknown
  Platform::UniqueHandle process;  // keeps the id from being reused; null if it cannot be opened
  std::wstring account;            // a SID as text; empty if unknown
  bool privileged = false;         // SYSTEM, or an elevated administrator
  std::wstring file;               // the file name of its program; empty if unknown
};

// Call this as soon as the process has connected, because its ID can be reused once it exits.
// Queries only this machine, so it does not block.
PipeCaller CallerOf(std::uint32_t processId);

// Returns "USER: FILE", truncated to 64 characters, for logs only. Neither part contains a colon,
// so a file name cannot pass for another user. Translates a name.
std::wstring CallerName(const PipeCaller& caller);

}  // namespace Vx::Hosting::ServiceHost
