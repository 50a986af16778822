#pragma once

#include <cstdint>
#include <string>

#include "platform/result.h"
#include "platform/unique_handle.h"

namespace Vx::Platform {

inline constexpr std::uint32_t kNoSession = 0xFFFFFFFF;

enum class TokenType { Primary, Impersonation };
enum class SessionText { UserName, DomainName };

// Signed-in users and impersonation. Thread-safe. No call blocks.
class Sessions {
 public:
  virtual ~Sessions() = default;

  // Returns the console session, or kNoSession if there is none.
  virtual std::uint32_t ActiveConsoleSession() const = 0;

  // Returns the primary token of the user signed in to `session`.
  virtual Result<UniqueHandle> QueryUserToken(std::uint32_t session) const = 0;

  // Copies `token` with maximum allowed access and impersonation level "impersonation".
  virtual Result<UniqueHandle> DuplicateUserToken(RawHandle token, TokenType type) const = 0;

  // Returns an id of the logon session of `token`, the same for all tokens of one logon.
  virtual Result<std::uint64_t> LogonOf(RawHandle token) const = 0;

  // Returns the SID, as text, of the user of `token`.
  virtual Result<std::wstring> SidOf(RawHandle token) const = 0;

  virtual Result<std::wstring> QueryText(std::uint32_t session, SessionText what) const = 0;

  // Makes the calling thread act as the user of `token`. Use Impersonation (console_user.h), which
  // also reverts. Both return zero or the error.
  virtual ErrorCode Impersonate(RawHandle token) = 0;
  virtual ErrorCode Revert() = 0;

  // Returns the token that the calling thread is impersonating with, or null if it is not.
  virtual Result<UniqueHandle> ThreadToken() const = 0;

  // Impersonates again with a token from ThreadToken, at its level. Returns zero or the error.
  virtual ErrorCode Resume(RawHandle threadToken) = 0;

  // Returns whether the process runs as Local System.
  virtual Result<bool> ProcessIsLocalSystem() const = 0;
};

}  // namespace Vx::Platform
