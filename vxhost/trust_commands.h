#pragma once

#include "vxhost/console.h"
#include "vxhost/options.h"

namespace Vx::Host {

// The subcommands that show what the trust and resume rules decide on this machine. Each returns an
// ExitCode and throws std::exception for a fault that the user has to correct: in the module, a
// file or a text.
int Trust(const Options& options, Console& console);
int Pin(const Options& options, Console& console);
int ExplainResume(const Options& options, Console& console);

}  // namespace Vx::Host
