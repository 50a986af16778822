#pragma once

#include <string>
#include <vector>

#include "hosting/json_row.h"
#include "vxhost/log/play_record.h"

namespace Vx::Hosting::Tool {

// The result of a scenario, even of one that could not be played.
struct PlayedScenario {
  std::string file;  // as given on the command line
  bool met = false;
  std::string error;  // why it could not be completed; empty if it was
  std::vector<RecordStep> steps;
  std::vector<RecordEntry> entries;
};

// Returns {"id", "code", "meaning", "answer"}. The answer is null if the module returned none, and
// a string if it is not JSON.
JsonRow CommandJson(std::uint32_t id, const CommandResult& answer);

// Returns {"scenario", "met", "seconds", "steps": [{"step", "line", "say", "met", "entries"}]}, as
// described in docs/vxhost.md.
JsonRow ScenarioJson(const PlayedScenario& played);

// Returns {"entries"}.
JsonRow EventsJson(const std::vector<RecordEntry>& entries);

// Returns a JUnit report, with one suite per scenario and one case per step.
std::string JUnitReport(const std::vector<PlayedScenario>& played);

}  // namespace Vx::Hosting::Tool
