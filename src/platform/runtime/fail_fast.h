#pragma once

namespace Vx::Platform {

// Ends the process at once, without destructors or handlers, and leaves Windows a report, with a
// dump where dumps are enabled. The C runtime's abort could show a message box, which no user sees
// in a service's session, and wait for it with a lock held.
[[noreturn]] void FailFast() noexcept;

// Installs FailFast for exceptions that no boundary catches. Called once per module, when it loads.
void FailFastOnTerminate() noexcept;

}  // namespace Vx::Platform
