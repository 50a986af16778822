#pragma once

namespace Vx::Platform {

// Ends the process at once, without destructors or handlers, and leaves Windows a report, with a
// dump where dumps are enabled. The C runtime's abort may show a message box, which no user sees in
// a service's session, and wait there with a lock held.
[[noreturn]] void FailFast() noexcept;

// Does the same for errors that no boundary catches. Installed once per module, when it loads.
void FailFastOnTerminate() noexcept;

}  // namespace Vx::Platform
