#pragma once

#include <functional>
#include <memory>

#include "vxhost/common/console.h"
#include "vxhost/common/module_options.h"
#include "vxhost/play/scenario.h"

namespace Vx::Hosting::Tool {

// The service that a subcommand uses, and its environment: the real module on this machine or, with
// --simulate, the service linked into this program on a simulated machine.
class Harness {
 public:
  virtual ~Harness() = default;
  virtual ScenarioContext& Open() = 0;
};

// Calls `prepare` after creating the machine and before the service. Throws std::runtime_error.
std::unique_ptr<Harness> MakeHarness(
    const ModuleOptions& options, Console& console, const std::function<void()>& prepare = [] {});

}  // namespace Vx::Hosting::Tool
