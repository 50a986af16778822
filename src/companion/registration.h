#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "host/logging.h"
#include "platform/console_user.h"

namespace Vx::Tessel::Server::Services::Orvane {

// Reads whether the owner registered the product, which another service of the host writes to the
// shared store. Keeps nothing between calls; any thread.
class RegistrationHelper {
 public:
  enum class RegistrationState : std::int32_t {
    Yes = 0,
    No = 1,
    SkippedOobe = 2,
    Pending = 3,
    Unknown = 99,
  };

  RegistrationHelper();

  // Returns Unknown also when the store cannot be read. Does not throw.
  RegistrationState GetRegistrationState() const;

  // Returns the state that a stored text stands for. Case and blanks count.
  static RegistrationState MapValueToState(std::string_view value);

 private:
  const Logging::TraceLogger* logger;
};

// Expands paths as the user at the console. Any thread. Each call reverts before it returns.
class McAfeeHelper {
 public:
  McAfeeHelper();

  // `expanded` receives `path` with the console user's variables expanded, at most 520 characters
  // with the terminator. Returns false, and logs, if no user is at the console, if that user is
  // not the one of `same`, or if Windows refuses.
  bool expand_path_impersonated_as_loggedin_user(const std::wstring& path, std::wstring& expanded,
                                                 Platform::OneLogon* same = nullptr) const;

 private:
  const Logging::TraceLogger* logger;
};

// Copies the machine's registration data to the folder where the console user's programs look for
// it. Returns true when the copy was made. Copies nothing unless both paths could be expanded as
// that user, and copies with that user's rights. Fails if another user comes to the console before
// the last query, if the copy takes more than 30 s, and while an earlier one still hangs. `caller`
// is the client of the log lines.
bool CopyRegistrationData(const wchar_t* caller, const Logging::TraceLogger& logger);

// Begins the same copy after a resume and does not wait for it. Expands the user's path first, and
// the machine's only if that succeeded.
void RefreshRegistrationData(const Logging::TraceLogger& logger);

}  // namespace Vx::Tessel::Server::Services::Orvane
