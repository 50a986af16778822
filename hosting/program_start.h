#pragma once

namespace Vx::Hosting {

// Call first in main. Afterwards, Windows loads libraries named without a folder only from the
// system directory, and an uncaught exception terminates the process with an error report.
void PrepareProgram() noexcept;

}  // namespace Vx::Hosting
