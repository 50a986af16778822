#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "host/logging.h"

namespace Vx::Tessel::Server::Services::Orvane {

// What the owner did about registering the product, as another service of the host left it in the
// shared store. Only read here. Keeps nothing between calls; any thread.
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

  // Unknown also when the store cannot be read. Throws nothing.
  RegistrationState GetRegistrationState() const;

  // The state that a stored text stands for; case and blanks count.
  static RegistrationState MapValueToState(std::string_view value);

 private:
  const Logging::TraceLogger* logger;
};

// Expands paths as the user at the console. Any thread; each call has reverted when it returns.
class McAfeeHelper {
 public:
  McAfeeHelper();

  // `path` with the console user's variables put in, at most 520 characters with the terminator.
  // False, logged, when nobody is there or Windows refuses.
  bool expand_path_impersonated_as_loggedin_user(const std::wstring& path,
                                                 std::wstring& expanded) const;

 private:
  const Logging::TraceLogger* logger;
};

// Copies the machine's registration data to where the console user's programs look for it; true
// when that was done. Nothing is copied unless both paths could be expanded as that user. `caller`
// is who the log lines are about. The copying, too, is done with that user's rights.
bool CopyRegistrationData(const wchar_t* caller, const Logging::TraceLogger& logger);

// The same after a resume, where the user's path is asked for first and the machine's only if there
// is one.
bool RefreshRegistrationData(const Logging::TraceLogger& logger);

}  // namespace Vx::Tessel::Server::Services::Orvane
