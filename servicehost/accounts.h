#pragma once

#include <string>
#include <vector>

namespace Vx::Hosting::ServiceHost {

// Windows accounts: users and groups. Each function may block while Windows queries a domain
// controller.

// Returns the SIDs, as text, of accounts that are given as SIDs or names. Throws WindowsError if
// Windows cannot find a name, or if it names something other than an account, such as a domain.
std::vector<std::wstring> SidsOf(const std::vector<std::wstring>& accounts);

// Returns the name of the account with this SID as "DOMAIN\NAME", or as "NAME" if it has no domain.
// Returns an empty string if Windows cannot find a name.
std::wstring AccountName(const std::wstring& sid);

// Returns `text` with the account's name after each SID: "S-1-1-0 (Everyone)". For display only,
// because names depend on the machine and on the language of Windows.
std::string WithAccountNames(const std::string& text);

}  // namespace Vx::Hosting::ServiceHost
