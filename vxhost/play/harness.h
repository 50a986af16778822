#pragma once

#include <functional>
#include <memory>

#include "vxhost/common/console.h"
#include "vxhost/common/module_options.h"
#include "vxhost/play/scenario.h"

namespace Vx::Hosting::Tool {

// Returns the service that a subcommand uses, with its environment: the real module on this machine
// or, with --simulate, the service linked into this program on a simulated machine. Calls `prepare`
// after creating the machine and before creating the service. Throws std::runtime_error on failure.
std::shared_ptr<ScenarioContext> MakeHarness(
    const ModuleOptions& options, Console& console, const std::function<void()>& prepare = [] {});

}  // namespace Vx::Hosting::Tool
