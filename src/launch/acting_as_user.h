#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "host/logging.h"
#include "platform/impersonation.h"
#include "platform/sessions.h"
#include "platform/unique_handle.h"

// The steps of acting for the user at the console, each with the one line that it logs when Windows
// refuses. Any thread.
namespace Vx::Tessel::Server::Services::Orvane {

inline constexpr wchar_t kActingAsUser[] = L"Attempting to impersonate logged in user.";
inline constexpr wchar_t kImpersonationFailed[] = L"Problem while impersonating logged in user.";

// The session at the console; empty while nobody is there.
std::optional<std::uint32_t> ConsoleSession(const Logging::TraceLogger& logger);

// A copy of the token of the user of `session`; null on failure.
Platform::SharedHandle UserTokenOf(std::uint32_t session, Platform::TokenType type,
                                   const Logging::TraceLogger& logger);

// Logs, as an error, that the thread still acts as the user.
void LogFailedRevert();

// The answer of `query` as the user of `token`, or an empty one when the thread may not act as that
// user. It acts as the service again when this returns.
template <typename Query>
auto AskAsUser(Platform::RawHandle token, const Logging::TraceLogger& logger, Query&& query)
    -> decltype(query()) {
  if (token == nullptr) return {};
  const Platform::Impersonation asUser(token, &LogFailedRevert);
  if (!asUser) {
    logger.LogWarning(kImpersonationFailed);
    return {};
  }
  return std::forward<Query>(query)();
}

// `path` with the variables of the user of `token` put in, at most 520 characters with the
// terminator; empty on failure. The thread acts as that user already.
std::optional<std::wstring> ExpandActing(Platform::RawHandle token, const std::wstring& path,
                                         const Logging::TraceLogger& logger);

}  // namespace Vx::Tessel::Server::Services::Orvane
