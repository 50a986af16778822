#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <utility>

#include "platform/result.h"
#include "platform/sessions.h"
#include "platform/unique_handle.h"

// All code that acts as the console user goes through here. Callers pass a callback for failures.
namespace Vx::Platform {

// The steps in the order in which they are taken.
enum class ActingStep { Session, SessionApi, Token, TokenCopy, Impersonation, Revert };

// Receives the failed step and its error, on the acting thread. May throw, except for Revert.
using ActingReport = std::function<void(ActingStep step, ErrorCode error)>;

// Pins an operation to one logon session, as the console user can change. Set by the first query.
using OneLogon = std::optional<std::uint64_t>;

// Returns the primary token of the console user, or null on failure. The Session step fails with
// ERROR_NO_TOKEN, SessionApi with ERROR_CALL_NOT_IMPLEMENTED, and Token with ERROR_LOGON_FAILURE if
// the token belongs to a logon session other than `same`.
UniqueHandle ConsoleUserToken(const ActingReport& report, OneLogon* same = nullptr);

// Returns a copy of that token with maximum allowed access and impersonation level "impersonation".
UniqueHandle ConsoleUserToken(TokenType type, const ActingReport& report, OneLogon* same = nullptr);

// Runs the calling thread as another user for the life of this object.
//
// Constructed, used and destroyed on one thread. Waits while impersonating must be bounded. A
// failed revert is always reported, because the thread keeps the user's rights. It is not retried.
class Impersonation {
 public:
  // Borrows `token` for this call only. On failure, there is nothing to revert.
  Impersonation(RawHandle token, ActingReport report);
  Impersonation(const Impersonation&) = delete;
  Impersonation& operator=(const Impersonation&) = delete;
  ~Impersonation();

  explicit operator bool() const noexcept { return active; }

 private:
  ActingReport failed;
  bool active = false;
};

// Runs the calling thread as its process for the life of this object, then restores its identity.
// For operations whose caller may be impersonating one of its clients. Use on one thread.
class OwnIdentity {
 public:
  OwnIdentity();
  OwnIdentity(const OwnIdentity&) = delete;
  OwnIdentity& operator=(const OwnIdentity&) = delete;
  ~OwnIdentity() { End(); }

  // Returns zero, or the error that left the thread with its previous identity.
  ErrorCode Error() const noexcept { return error; }

  // Restores the thread's identity. Returns zero, or an error if the thread continues with
  // its process's identity. A second call has no effect.
  ErrorCode End();

 private:
  UniqueHandle before;  // null if the thread was not impersonating, and after End
  ErrorCode error = 0;
};

// Debug builds only: fails fast if the thread is impersonating, because a slot would revert that.
void ExpectOwnIdentity() noexcept;

// Returns the result of `action`, run as the user of `token`, or an empty value if `token` is null
// or impersonation fails. The thread acts as the service again when this returns or throws.
template <typename Action>
auto AsUser(RawHandle token, const ActingReport& report, Action&& action) -> decltype(action()) {
  if (token == nullptr) return {};
  const Impersonation asUser(token, report);
  if (!asUser) return {};
  return std::forward<Action>(action)();
}

// Like AsUser, for the console user.
template <typename Action>
auto AsConsoleUser(const ActingReport& report, Action&& action) -> decltype(action()) {
  const UniqueHandle token = ConsoleUserToken(report);
  return AsUser(token.get(), report, std::forward<Action>(action));
}

}  // namespace Vx::Platform
