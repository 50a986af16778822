#pragma once

#include <string>
#include <vector>

#include "vxhost/console.h"
#include "vxhost/options.h"

namespace Vx::Host {

// The subcommands that read the shared store. Each returns an ExitCode and throws std::exception
// for a fault that the user has to correct: in the module, a file or a text.
int ShowStore(const Options& options, Console& console);
int ShowSubscriptions(const Options& options, Console& console);

// The store as ShowStore prints it, with one line per value of its top level: "KEY {...}". Throws
// std::runtime_error when it cannot be read.
std::vector<std::string> StoreLines();

}  // namespace Vx::Host
