#pragma once

#include "vxhost/common/console.h"

namespace Vx::Hosting::Tool {

// What vxhost without a subcommand prints: the state of this machine's service, store and
// subscriptions in a line each, and what to try next. Changes nothing.
int Overview(Console& console);

}  // namespace Vx::Hosting::Tool
