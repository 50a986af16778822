#pragma once

#include <functional>
#include <string>

#include "host/logging.h"
#include "platform/unique_handle.h"

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

  // Runs `work` with the console user's impersonation token; its answer. False, logged, and nothing
  // run, when nobody is there or Windows refuses.
  bool RunAsLoggedInUser(const std::function<bool(Platform::RawHandle token)>& work) const;

 private:
  const Logging::TraceLogger* logger;
};

}  // namespace Vx::Tessel::Server::Services::Orvane
