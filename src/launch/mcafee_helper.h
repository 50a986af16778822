#pragma once

#include <functional>
#include <string>

#include "host/logging.h"

namespace Vx::Tessel::Server::Services::Orvane {

// Expands paths and does other work as the user at the console. Any thread; each call has reverted
// when it returns.
class McAfeeHelper {
 public:
  McAfeeHelper();

  // `path` with the console user's variables put in, at most 520 characters with the terminator.
  // False, logged, when nobody is there or Windows refuses.
  bool expand_path_impersonated_as_loggedin_user(const std::wstring& path,
                                                 std::wstring& expanded) const;

  // Returns what `work` returns when run as the console user. False, logged, and nothing run, when
  // no user is there or Windows refuses.
  bool RunAsLoggedInUser(const std::function<bool()>& work) const;

 private:
  const Logging::TraceLogger* logger;
};

}  // namespace Vx::Tessel::Server::Services::Orvane
