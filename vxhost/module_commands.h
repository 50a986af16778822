#pragma once

#include "vxhost/console.h"
#include "vxhost/options.h"

namespace Vx::Host {

// The subcommands that load the module in the role of the service host. Each returns an ExitCode
// and throws std::exception for a fault that the user has to correct: in the module, a file or a
// text.
int Exec(const Options& options, Console& console);
int Scenario(const Options& options, Console& console);
int Events(const Options& options, Console& console);

}  // namespace Vx::Host
