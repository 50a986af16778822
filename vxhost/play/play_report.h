#pragma once

#include <string>
#include <vector>

#include "vxhost/common/json_row.h"
#include "vxhost/log/play_record.h"

namespace Vx::Host {

// One scenario that was played, or could not be.
struct PlayedScenario {
  std::string file;  // as the command line names it
  bool met = false;
  std::string error;  // why it could not be played, or not to its end
  std::vector<RecordStep> steps;
  std::vector<RecordEntry> entries;
};

// {"id", "code", "meaning", "answer"}. The answer is null when the module returned none, and a text
// when it is not JSON.
JsonRow CommandJson(std::uint32_t id, const CommandResult& answer);

// {"scenario", "met", "seconds", "steps": [{"step", "line", "say", "met", "entries"}]}, as
// docs/vxhost.md describes it.
JsonRow ScenarioJson(const PlayedScenario& played);

// {"entries"}
JsonRow EventsJson(const std::vector<RecordEntry>& entries);

// The report that continuous integration servers read: one suite per scenario, one case per step.
std::string JUnitReport(const std::vector<PlayedScenario>& played);

}  // namespace Vx::Host
