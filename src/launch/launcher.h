#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "host/logging.h"
#include "platform/console_user.h"
#include "platform/sessions.h"
#include "platform/unique_handle.h"

namespace Vx::Tessel::Server::Services::Orvane {

inline constexpr wchar_t kActingAsUser[] = L"Attempting to impersonate logged in user.";

// Logs a refused step of acting as the console user: a warning, or an error where the thread could
// not revert. Operations log a missing session API set themselves.
void LogRefusedStep(const Logging::TraceLogger& logger, Platform::ActingStep step);

// `path` with the variables of the user of `token` put in, at most 520 characters with the
// terminator; empty, and logged, on failure.
std::optional<std::wstring> ExpandAsUser(Platform::RawHandle token, const std::wstring& path,
                                         const Logging::TraceLogger& logger);

// Starts programs for the user at the console and answers questions as that user. Copyable; any
// thread. Nothing here throws for a refusal of Windows: it is logged and answered with an empty or
// false result. Every impersonation ends before the operation returns.
class Launcher {
 public:
  Launcher();

  // Starts a packaged app through its execution alias as the console user. With a parameter the
  // command line is the quoted path, a blank and the parameter. True when the process was created.
  bool Run(const std::wstring& alias, const std::wstring& packageFamilyName,
           const std::wstring& parameter = {}) const;

  // The console user's token; empty on failure.
  Platform::SharedHandle GetUserTokenForCurrentUser(Platform::TokenType type) const;

  // Empty on failure. The overloads with a token act as its user.
  std::wstring GetPackageFullNameByFamilyName(const std::wstring& familyName) const;
  std::wstring GetPackageFullNameByFamilyName(const std::wstring& familyName,
                                              Platform::RawHandle token) const;
  std::wstring GetPackageInstalledPathByFullName(const std::wstring& fullName) const;
  std::wstring GetPackageInstalledPathByFullName(const std::wstring& fullName,
                                                 Platform::RawHandle token) const;

  std::wstring GetPathExpandedImpersonatedAsCurrentUser(const std::wstring& path,
                                                        Platform::RawHandle token) const;
  std::wstring GetAbsolutePathForUWPAlias(const std::wstring& alias) const;

  // Starts `executable` as the user of the primary token `token`.
  bool RunExeAsUser(const std::wstring& executable, const std::wstring& workingDirectory,
                    Platform::RawHandle token, const std::wstring& parameter = {}) const;

  // Whether a real user's profile is at the console; `profilePath` receives it.
  bool IsRealUserSession(std::wstring& profilePath) const;

  static std::mutex rLock;  // serialises package queries by family name

 private:
  Logging::TraceLogger* logger;
  std::wstring aliasFolder;
};

}  // namespace Vx::Tessel::Server::Services::Orvane
