#pragma once

namespace Vx::Platform {

// Ends the process at once and leaves Windows a report of it, with a dump where dumps are enabled.
// The C runtime's abort may show a message box, which no user sees in a service's session, and
// wait there with a lock held. Runs no destructors and no handlers.
[[noreturn]] void FailFast() noexcept;

// The same for errors that no boundary contains. Installed once per module, at its load.
void FailFastOnTerminate() noexcept;

}  // namespace Vx::Platform
