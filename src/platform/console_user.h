#pragma once

#include "platform/result.h"
#include "platform/unique_handle.h"

namespace Vx::Platform {

// The primary token of the user at the console. Fails with ERROR_CALL_NOT_IMPLEMENTED where Windows
// has no sessions, with ERROR_NO_TOKEN while nobody is at the console, and with what Windows says
// otherwise. Logs nothing.
Result<UniqueHandle> ConsoleUserToken();

}  // namespace Vx::Platform
