#pragma once

#include "vxhost/console.h"
#include "vxhost/options.h"

namespace Vx::Host {

// The subcommands that look into the shared store. Each returns an ExitCode; throws std::exception
// for what the user has to put right: the module, a file, a text.
int ShowStore(const Options& options, Console& console);
int ShowSubscriptions(const Options& options, Console& console);

}  // namespace Vx::Host
