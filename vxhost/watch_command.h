#pragma once

#include "vxhost/console.h"
#include "vxhost/options.h"

namespace Vx::Host {

// Returns an ExitCode; throws std::exception for
// what the user has to put right: the module, a file, a text.
int Watch(const Options& options, Console& console);

}  // namespace Vx::Host
