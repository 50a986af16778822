#include "platform/sessions.h"

#include <cwchar>
#include <memory>

#include <windows.h>

#include <wtsapi32.h>

#include "platform/windows/capabilities.h"
#include "platform/windows/file_handle.h"

namespace Vx::Platform {

namespace {

class RealSessions final : public Sessions {
 public:
  std::uint32_t ActiveConsoleSession() const override { return WTSGetActiveConsoleSessionId(); }

  Result<UniqueHandle> QueryUserToken(std::uint32_t session) const override {
    HANDLE raw = nullptr;
    if (WTSQueryUserToken(session, &raw) == FALSE) return Failure(GetLastError());
    return UniqueHandle(raw);
  }

  Result<UniqueHandle> DuplicateUserToken(RawHandle token, TokenType type) const override {
    HANDLE raw = nullptr;
    if (DuplicateTokenEx(token, MAXIMUM_ALLOWED, nullptr, SecurityImpersonation,
                         type == TokenType::Primary ? TokenPrimary : TokenImpersonation,
                         &raw) == FALSE) {
      return Failure(GetLastError());
    }
    return UniqueHandle(raw);
  }

  // https://learn.microsoft.com/windows/win32/api/winnt/ns-winnt-token_statistics
  Result<std::uint64_t> LogonOf(RawHandle token) const override {
    TOKEN_STATISTICS statistics{};
    DWORD size = 0;
    if (GetTokenInformation(token, TokenStatistics, &statistics, sizeof statistics, &size) ==
        FALSE) {
      return Failure(GetLastError());
    }
    const LUID& id = statistics.AuthenticationId;
    return std::uint64_t{static_cast<std::uint32_t>(id.HighPart)} << 32 | id.LowPart;
  }

  Result<std::wstring> SidOf(RawHandle token) const override {
    TokenUserBuffer buffer{};
    std::wstring text = SidText(UserOf(token, buffer));
    if (text.empty()) return Failure(GetLastError());
    return text;
  }

  Result<std::wstring> QueryText(std::uint32_t session, SessionText what) const override {
    wchar_t* raw = nullptr;
    DWORD bytes = 0;
    if (WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, session,
                                    what == SessionText::UserName ? WTSUserName : WTSDomainName,
                                    &raw, &bytes) == FALSE) {
      return Failure(GetLastError());
    }
    const std::unique_ptr<wchar_t, decltype(&WTSFreeMemory)> text(raw, &WTSFreeMemory);
    if (text == nullptr) return std::wstring();
    return std::wstring(text.get(), wcsnlen(text.get(), bytes / sizeof(wchar_t)));
  }

  ErrorCode Impersonate(RawHandle token) override {
    return ImpersonateLoggedOnUser(token) != FALSE ? 0 : GetLastError();
  }

  ErrorCode Revert() override { return RevertToSelf() != FALSE ? 0 : GetLastError(); }

  Result<UniqueHandle> ThreadToken() const override {
    HANDLE raw = nullptr;
    if (OpenThreadToken(GetCurrentThread(), TOKEN_QUERY | TOKEN_IMPERSONATE, TRUE, &raw) == FALSE) {
      const DWORD error = GetLastError();
      if (error != ERROR_NO_TOKEN) return Failure(error);
    }
    return UniqueHandle(raw);
  }

  ErrorCode Resume(RawHandle threadToken) override {
    return SetThreadToken(nullptr, threadToken) != FALSE ? 0 : GetLastError();
  }

  Result<bool> ProcessIsLocalSystem() const override {
    const auto token = ProcessToken();
    if (!token) return Failure(token.Error());
    TokenUserBuffer buffer{};
    const PSID user = UserOf(token->get(), buffer);
    if (user == nullptr) return Failure(GetLastError());
    return IsWellKnownSid(user, WinLocalSystemSid) != FALSE;
  }
};

}  // namespace

Sessions& WindowsSessions() {
  static RealSessions sessions;
  return sessions;
}

}  // namespace Vx::Platform
