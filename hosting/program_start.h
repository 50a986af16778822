#pragma once

namespace Vx::Hosting {

// Call first in main. From then on Windows loads libraries that are named without a folder from the
// system directory alone, and an error that nothing catches ends the process with a report.
void PrepareProgram() noexcept;

}  // namespace Vx::Hosting
