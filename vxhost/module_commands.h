#pragma once

#include "vxhost/console.h"
#include "vxhost/options.h"

namespace Vx::Host {

// The subcommands that load the module and play the service host's part. Each returns an ExitCode;
// throws std::exception for what the user has to put right: the module, a file, a text.
int Exec(const Options& options, Console& console);
int Scenario(const Options& options, Console& console);
int Events(const Options& options, Console& console);

}  // namespace Vx::Host
