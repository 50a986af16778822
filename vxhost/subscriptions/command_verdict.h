#pragma once

#include <cstdint>
#include <string>

#include "hosting/loaded_module.h"

namespace Vx::Hosting::Tool {

// Returns whether the command did what was requested: it returned 0, refused nothing, and did not
// store a subscription that will never run.
bool WasDone(const CommandResult& answer);

// Returns the outcome of command `id`, such as "stored" or "nothing removed". Returns an empty
// string if the module answered with an error code or recorded no decision.
std::string VerdictOf(std::uint32_t id, const CommandResult& answer);

}  // namespace Vx::Hosting::Tool
