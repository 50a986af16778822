#pragma once

#include <vector>

#include "json/json_text.h"
#include "simulator/simulated_machine.h"
#include "vxhost/play/scenario_check.h"

namespace Vx::Hosting::Tool {

// Returns the rules of all parts that change the simulated machine or its time.
std::vector<PartRule> MachineRules();

// Throws std::runtime_error if a "refuse" part is in effect but the call that it names has not been
// made since, for example because the name is misspelled.
void RequireRefusal(const Simulator::SimulatedMachine& machine);

// Applies the step's changes, except to the machine's time. Throws std::runtime_error on failure.
void ChangeMachine(const Json::WideValue& step, const Definitions& definitions,
                   Simulator::SimulatedMachine& machine);

// Advances the clock by the step's "advance", if any, then waits until all workers are idle.
void PassTime(const Json::WideValue& step, Simulator::SimulatedMachine& machine);

}  // namespace Vx::Hosting::Tool
