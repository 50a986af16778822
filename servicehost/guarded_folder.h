#pragma once

#include <string>
#include <vector>

#include "platform/files.h"

namespace Vx::Hosting::ServiceHost {

// Accounts, besides SYSTEM, administrators and the installer, that may have write access.
enum class Writers {
  System,   // none
  Account,  // the account of this process, for development machines
};

// Returns the accounts (SIDs as text), except accepted ones, to which this access list grants any
// of `rights`. Includes the owner, unless accepted, because an owner can change the list.
std::vector<std::wstring> OtherWriters(const Platform::AccessList& access, std::uint32_t rights,
                                       Writers accepted);

// Returns why one of the service's folders is not safe: another account can write to it, or it
// cannot be examined. Returns an empty string if it is safe.
std::string WhyWritable(const std::wstring& folder, Writers accepted);

// Returns why it is not safe to run the program at the full path `file` as SYSTEM: another account
// can write to the file, its folder or a folder above, or can delete entries in the drive's root,
// or the file or one of these folders cannot be examined. Returns an empty string if it is safe.
std::string WhyUnguarded(const std::wstring& file, Writers accepted);

// Returns the folder to which %ProgramData% expands for services, regardless of this process's
// environment. Throws std::runtime_error if Windows cannot provide it.
std::wstring ProgramDataFolder();

// The service has these folders under `programData`: Vx, which users can only read, and two
// subfolders that only administrators and SYSTEM can access: Vx\SharedServices, with the store, and
// Vx\Logs. Creates missing ones. If an account that is not `accepted` can write to an existing one,
// Report throws. Repair resets the folder's access list or, if another account could change that
// list, renames the folder and creates a new one. Returns a description of each repair. Throws
// std::runtime_error with advice for the administrator.
enum class Existing { Report, Repair };
std::vector<std::string> PrepareFolders(const std::wstring& programData, Writers accepted,
                                        Existing existing);

// Returns the path of Vx\Logs under `programData`.
std::wstring LogsFolder(const std::wstring& programData);

}  // namespace Vx::Hosting::ServiceHost
