#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "host/logging.h"
#include "platform/console_user.h"
#include "platform/sessions.h"
#include "platform/unique_handle.h"
#include "records/record.h"

namespace Vx::Tessel::Security {
class TrustedProgram;
}

namespace Vx::Tessel::Server::Services::Orvane {

inline constexpr wchar_t kActingAsUser[] = L"Attempting to impersonate logged in user.";

// Logs a step that failed while acting as the console user: as an error if the thread could not
// revert, otherwise as a warning. Does not log a missing session API set, which the caller logs.
void LogRefusedStep(Platform::ActingStep step, Platform::ErrorCode error);

// Expands the variables in `path` as the user of `token`. Returns at most 520 characters with the
// terminator, or nothing on failure, which is logged.
std::optional<std::wstring> ExpandAsUser(Platform::RawHandle token, const std::wstring& path);

// Starts programs for the console user and queries packages and paths as that user. Copyable.
// Thread-safe. If a Windows call fails, the operation logs that and returns an empty or false
// result, without throwing. Every impersonation ends before the operation returns.
class Launcher {
 public:
  Launcher();

  // Starts a packaged app through its execution alias as the console user. A `parameter` is
  // appended to the quoted path after a space. Returns true if the process was created.
  bool Run(const std::wstring& alias, const std::wstring& packageFamilyName,
           const std::wstring& parameter = {}) const;

  // Returns the console user's token, or null on failure or if its logon session is not `same`.
  Platform::SharedHandle GetUserTokenForCurrentUser(Platform::TokenType type,
                                                    Platform::OneLogon* same = nullptr) const;

  // All return an empty string on failure. The overloads with a token impersonate its user.
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

  // Returns whether the console user's profile is a real user's. `profilePath` receives its path.
  bool IsRealUserSession(std::wstring& profilePath) const;

  static inline std::mutex rLock;  // serializes package queries by family name

 private:
  Logging::TraceLogger* logger;
  std::wstring aliasFolder;
};

// Returns the id of the logon process in `session`, whose token starts programs there. Finds it by
// its file name. Returns nothing if there is none or it cannot be queried.
std::optional<std::uint32_t> LogonProcessIn(std::uint32_t session);

// Starts `program` in `session` with the SYSTEM token of that session's winlogon.exe and the
// system's environment. Omits arguments that do not fit in a command line. If the working directory
// is empty or cannot be a path, uses the program's own folder. If `packageFolder`, the folder name
// of a packaged app, is not empty, the environment names that app's local and roaming data folders.
// Returns Ran with the process, or NotStarted with the reason. Throws only std::bad_alloc.
Records::Outcome LaunchProcessInSession(const Security::TrustedProgram& program,
                                        const std::wstring& arguments,
                                        const std::wstring& workingDirectory, std::uint32_t session,
                                        const std::wstring& packageFolder = {});

// Returns why this process cannot start programs in `session` now: there is no logon process, or
// its token is not available. Returns None if it can. Starts nothing.
Records::Reason WhyNoLaunchIn(std::uint32_t session);

}  // namespace Vx::Tessel::Server::Services::Orvane
