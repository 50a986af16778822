#pragma once

#include "vxhost/common/console.h"

namespace Vx::Hosting::Tool {

// Prints the state of this machine's service, store and subscriptions, on one line each, and
// suggests what to run next. Runs if there is no subcommand. Changes nothing.
int Overview(Console& console);

}  // namespace Vx::Hosting::Tool
