#include "servicehost/accounts.h"

#include <algorithm>
#include <iterator>

#include <windows.h>

#include <sddl.h>

#include "hosting/text.h"
#include "hosting/windows_error.h"
#include "platform/machine.h"
#include "platform/packages.h"
#include "platform/unique_handle.h"

namespace Vx::Hosting::ServiceHost {

namespace {

constexpr char kSidStart[] = "S-1-";

// Rejects the two-letter SDDL aliases of SIDs, because an account can have such a name.
Platform::UniqueLocalMemory<void> ParseSid(const std::wstring& text) {
  PSID sid = nullptr;
  const bool valid =
      Utf8(text).starts_with(kSidStart) && ConvertStringSidToSidW(text.c_str(), &sid) != FALSE;
  return Platform::UniqueLocalMemory<void>(valid ? sid : nullptr);
}

}  // namespace

std::vector<std::wstring> SidsOf(const std::vector<std::wstring>& accounts) {
  std::vector<std::wstring> sids;
  for (const std::wstring& account : accounts) {
    if (ParseSid(account) != nullptr) {
      sids.push_back(account);
      continue;
    }
    auto sid = Platform::CurrentMachine().packages->AccountSid(account);
    if (!sid) throw WindowsError("there is no account " + Utf8(account), sid.Error());
    sids.push_back(*std::move(sid));
  }
  return sids;
}

std::wstring AccountName(const std::wstring& sid) {
  const auto parsed = ParseSid(sid);
  wchar_t name[256];
  wchar_t domain[256];
  DWORD nameSize = static_cast<DWORD>(std::size(name));
  DWORD domainSize = static_cast<DWORD>(std::size(domain));
  SID_NAME_USE use{};
  if (parsed == nullptr || LookupAccountSidW(nullptr, parsed.get(), name, &nameSize, domain,
                                             &domainSize, &use) == FALSE) {
    return {};
  }
  return (domainSize == 0 ? L"" : std::wstring(domain) + L"\\") + name;
}

std::string WithAccountNames(const std::string& text) {
  std::string result;
  std::size_t end = 0;
  for (auto at = text.find(kSidStart); at != text.npos; at = text.find(kSidStart, end)) {
    const std::size_t last = std::min(text.find_first_not_of("-0123456789", at + 1), text.size());
    const std::string sid = text.substr(at, last - at);
    const std::string name = Utf8(AccountName(Wide(sid)));
    result += text.substr(end, last - end) + (name.empty() ? "" : " (" + name + ")");
    end = last;
  }
  return result + text.substr(end);
}

}  // namespace Vx::Hosting::ServiceHost
