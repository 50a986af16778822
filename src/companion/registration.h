#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "host/logging.h"
#include "platform/console_user.h"

namespace Vx::Tessel::Server::Services::Orvane {

// Reads the owner's registration state, which another service of the host writes to the shared
// store. Stateless and thread-safe.
class RegistrationHelper {
 public:
  enum class RegistrationState : std::int32_t {
    Yes = 0,
    No = 1,
    SkippedOobe = 2,
    Pending = 3,
    Unknown = 99,
  };

  // Returns Unknown if the store cannot be read. Does not throw.
  RegistrationState GetRegistrationState() const;

  // Returns the state for a stored text. Case and spaces matter.
  static RegistrationState MapValueToState(std::string_view value);

 private:
  const Logging::TraceLogger* logger =
      Logging::LogManager::SetProvider(Logging::kComponentProvider);
};

// Expands paths as the console user. Thread-safe. Each call reverts before it returns.
class McAfeeHelper {
 public:
  // Expands the console user's variables in `path` to at most 520 characters with the terminator.
  // Logs and returns false if there is no console user, the user is not `same` or a call fails.
  bool expand_path_impersonated_as_loggedin_user(const std::wstring& path, std::wstring& expanded,
                                                 Platform::OneLogon* same = nullptr) const;

 private:
  const Logging::TraceLogger* logger =
      Logging::LogManager::SetProvider(Logging::kComponentProvider);
};

// Copies the machine's registration data to where the console user's programs look for it. Expands
// both paths and copies with that user's rights. Returns true if the copy was made. Fails if a path
// cannot be expanded, if another user signs in at the console before the last query, if the copy or
// its wait for another copy takes more than 30 s, or if an earlier copy hangs. Returns within 62 s,
// plus the time that Windows takes to answer. `caller` is the client in the log lines.
bool CopyRegistrationData(const wchar_t* caller, const Logging::TraceLogger& logger);

// Starts the same copy after a resume and does not wait for it. Expands the user's path first, and
// the machine's only if that succeeded.
void RefreshRegistrationData(const Logging::TraceLogger& logger);

}  // namespace Vx::Tessel::Server::Services::Orvane
