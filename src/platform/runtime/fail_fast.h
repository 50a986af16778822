#pragma once

namespace Vx::Platform {

// Terminates the process at once, without running destructors or handlers. Windows records an error
// report, with a dump if dumps are enabled. The C runtime's abort could show a message box, which
// no user sees in a service's session, and wait for it with a lock held.
[[noreturn]] void FailFast() noexcept;

// Installs FailFast for exceptions that no boundary catches. Called once per module, when it loads.
void FailFastOnTerminate() noexcept;

}  // namespace Vx::Platform
