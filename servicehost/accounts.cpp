#include "servicehost/accounts.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

#include <windows.h>

#include <sddl.h>

#include "hosting/text.h"
#include "platform/machine.h"
#include "platform/packages.h"
#include "platform/sessions.h"
#include "platform/windows/file_handle.h"

namespace Vx::Hosting::ServiceHost {

namespace {

using Platform::UniqueHandle;

constexpr char kSidStart[] = "S-1-";
constexpr std::size_t kLongestName = 64;

// Rejects the two-letter SDDL aliases of SIDs, because an account can have such a name.
Platform::UniqueLocalMemory<void> ParseSid(const std::wstring& text) {
  PSID sid = nullptr;
  const bool valid =
      Utf8(text).starts_with(kSidStart) && ConvertStringSidToSidW(text.c_str(), &sid) != FALSE;
  return Platform::UniqueLocalMemory<void>(valid ? sid : nullptr);
}

// Returns "DOMAIN\NAME" or, without a domain, "NAME". Returns "" if Windows cannot find a name.
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

// Returns whether `group` is enabled in `token`. The administrators group is not enabled for an
// administrator who has not elevated. CheckTokenMembership takes only impersonation tokens.
bool IsMember(HANDLE token, WELL_KNOWN_SID_TYPE group) {
  HANDLE raw = nullptr;
  if (DuplicateToken(token, SecurityIdentification, &raw) == FALSE) return false;
  const UniqueHandle copy(raw);
  alignas(SID) std::byte sid[SECURITY_MAX_SID_SIZE];
  DWORD size = sizeof sid;
  BOOL member = FALSE;
  return CreateWellKnownSid(group, nullptr, sid, &size) != FALSE &&
         CheckTokenMembership(copy.get(), sid, &member) != FALSE && member != FALSE;
}

std::wstring FileNameOf(HANDLE process) {
  std::wstring path(kLongestPath, L'\0');
  DWORD length = static_cast<DWORD>(path.size());
  if (QueryFullProcessImageNameW(process, 0, path.data(), &length) == FALSE) return {};
  path.resize(length);
  return path.substr(path.find_last_of(L'\\') + 1);
}

// Replaces the brackets that enclose the caller in log lines, and the colon between user and file.
// Windows' own file systems do not allow colons in file names, but others may.
std::wstring Harmless(const std::wstring& name) {
  std::wstring text = Wide(Printable(Utf8(name), LineBreaks::Replace));
  std::ranges::replace(text, L'[', L'(');
  std::ranges::replace(text, L']', L')');
  std::ranges::replace(text, L':', L';');
  return text;
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

PipeCaller CallerOf(std::uint32_t processId) {
  PipeCaller caller;
  caller.processId = processId;
  caller.process.reset(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, processId));
  HANDLE raw = nullptr;
  const BOOL opened = OpenProcessToken(caller.process.get(), TOKEN_QUERY | TOKEN_DUPLICATE, &raw);
  const UniqueHandle token(opened != FALSE ? raw : nullptr);
  if (token == nullptr) return caller;
  if (auto user = Platform::WindowsMachine().sessions->SidOf(token.get())) caller.account = *user;
  caller.privileged = IsMember(token.get(), WinLocalSystemSid) ||
                      IsMember(token.get(), WinBuiltinAdministratorsSid);
  caller.file = FileNameOf(caller.process.get());
  return caller;
}

std::wstring CallerName(const PipeCaller& caller) {
  std::wstring process = L"process " + std::to_wstring(caller.processId);
  if (caller.account.empty()) return process;
  std::wstring user = AccountName(caller.account);
  user.erase(0, user.rfind(L'\\') + 1);
  // The user comes first, because the end of a long name is truncated.
  std::wstring name = Harmless(user.empty() ? caller.account : user) + L": " +
                      Harmless(caller.file.empty() ? process : caller.file);
  name.resize(std::min(name.size(), kLongestName));
  return name;
}

}  // namespace Vx::Hosting::ServiceHost
