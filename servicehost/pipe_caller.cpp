#include "servicehost/pipe_caller.h"

#include <algorithm>
#include <cstddef>

#include <windows.h>

#include <aclapi.h>

#include "hosting/text.h"
#include "platform/windows/file_handle.h"
#include "servicehost/accounts.h"

namespace Vx::Hosting::ServiceHost {

namespace {

using Platform::UniqueHandle;

constexpr std::size_t kLongestName = 64;

UniqueHandle TokenOf(HANDLE process) {
  HANDLE token = nullptr;
  const BOOL opened = OpenProcessToken(process, TOKEN_QUERY | TOKEN_DUPLICATE, &token);
  return UniqueHandle(opened != FALSE ? token : nullptr);
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
  std::replace(text.begin(), text.end(), L'[', L'(');
  std::replace(text.begin(), text.end(), L']', L')');
  std::replace(text.begin(), text.end(), L':', L';');
  return text;
}

}  // namespace

PipeCaller CallerOf(std::uint32_t processId) {
  PipeCaller caller;
  caller.processId = processId;
  caller.process.reset(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, processId));
  const UniqueHandle token = TokenOf(caller.process.get());
  if (token == nullptr) return caller;
  alignas(TOKEN_USER) std::byte user[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
  DWORD size = sizeof user;
  if (GetTokenInformation(token.get(), TokenUser, user, size, &size) != FALSE) {
    caller.account = Platform::SidText(reinterpret_cast<const TOKEN_USER*>(user)->User.Sid);
  }
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

std::wstring OwnerOf(Platform::RawHandle pipe) {
  PSID owner = nullptr;
  PSECURITY_DESCRIPTOR raw = nullptr;
  if (GetSecurityInfo(pipe, SE_KERNEL_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr, nullptr,
                      nullptr, &raw) != ERROR_SUCCESS) {
    return {};
  }
  const Platform::UniqueLocalMemory<void> descriptor(raw);
  return Platform::SidText(owner);
}

}  // namespace Vx::Hosting::ServiceHost
