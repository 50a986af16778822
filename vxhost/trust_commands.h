#pragma once

#include "vxhost/console.h"
#include "vxhost/options.h"

namespace Vx::Host {

// The subcommands that ask what the trust and resume rules decide on this machine. Each returns an
// ExitCode; throws std::exception for what the user has to put right: the module, a file, a text.
int Trust(const Options& options, Console& console);
int Pin(const Options& options, Console& console);
int ExplainResume(const Options& options, Console& console);

}  // namespace Vx::Host
