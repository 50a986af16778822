#pragma once

#include <string>
#include <vector>

#include "vxhost/console.h"
#include "vxhost/options.h"

namespace Vx::Host {

// The subcommands that look into the shared store. Each returns an ExitCode; throws std::exception
// for what the user has to put right: the module, a file, a text.
int ShowStore(const Options& options, Console& console);
int ShowSubscriptions(const Options& options, Console& console);

// The store as ShowStore shows it, with one line per value of its top level: "KEY {...}". Throws
// std::runtime_error when it cannot be read.
std::vector<std::string> StoreLines();

}  // namespace Vx::Host
