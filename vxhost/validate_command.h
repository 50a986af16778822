#pragma once

#include "vxhost/console.h"
#include "vxhost/options.h"

namespace Vx::Host {

// Returns an ExitCode and throws std::exception for a fault that the user has to correct: in the
// module, a file or a text.
int Validate(const Options& options, Console& console);

}  // namespace Vx::Host
