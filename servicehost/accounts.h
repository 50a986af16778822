#pragma once

#include <string>
#include <vector>

namespace Vx::Hosting::ServiceHost {

// The accounts of Windows: users and groups. Each function may block while Windows asks a domain
// controller.

// Returns the SIDs, as text, of accounts that are written as SIDs or names. Throws WindowsError for
// one that Windows does not know, or knows as something else, such as a domain.
std::vector<std::wstring> SidsOf(const std::vector<std::wstring>& accounts);

// Returns the account of a SID as "DOMAIN\NAME", or as "NAME" if it belongs to no domain. Empty if
// Windows knows no name.
std::wstring AccountName(const std::wstring& sid);

// Returns `text` with the account's name behind each SID: "S-1-1-0 (Everyone)". For people only,
// because names depend on the machine and on the language of Windows.
std::string WithAccountNames(const std::string& text);

}  // namespace Vx::Hosting::ServiceHost
