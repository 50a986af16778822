#pragma once

#include <string>
#include <vector>

namespace Vx::Hosting::ServiceHost {

// Windows accounts: users and groups. Each function may block while Windows queries a domain
// controller.

// Returns the SIDs, as text, of accounts given as SIDs or names. Throws WindowsError if Windows
// does not know one, or if it is not an account, such as a domain.
std::vector<std::wstring> SidsOf(const std::vector<std::wstring>& accounts);

// Returns the account of a SID as "DOMAIN\NAME", or as "NAME" if it belongs to no domain. Returns
// an empty string if Windows knows no name for it.
std::wstring AccountName(const std::wstring& sid);

// Returns `text` with the account's name after each SID: "S-1-1-0 (Everyone)". For people only,
// because names depend on the machine and on the language of Windows.
std::string WithAccountNames(const std::string& text);

}  // namespace Vx::Hosting::ServiceHost
