#pragma once

#include <functional>
#include <string>
#include <vector>

#include "json/json_text.h"
#include "simulator/simulated_machine.h"
#include "vxhost/play/scenario_rules.h"

namespace Vx::Host {

// Returns the text of a scenario's value, with definitions expanded.
using Expander = std::function<std::wstring(const Json::WideValue&)>;

// A required member of a step or of one of its parts. Throws std::runtime_error when it is absent.
const Json::WideValue& Member(const Json::WideValue& object, const wchar_t* key);

// The rule of a part that changes the simulated machine or lets its time pass. Null when `key` is
// none.
const PartRule* FindMachineRule(const std::wstring& key);

// The keys of all of them.
std::vector<std::string> MachineKeys();

// Throws std::runtime_error if a part "refuse" is in effect whose call was not made since, as with
// a misspelt name.
void RequireRefusal(const Simulator::SimulatedMachine& machine);

// Changes the machine as the step asks (docs/vxhost.md lists the parts), except for its time.
// Throws std::runtime_error.
void ChangeMachine(const Json::WideValue& step, const Expander& expand,
                   Simulator::SimulatedMachine& machine);

// Lets the seconds of the step's "advance" pass, if it has one, and then every worker come to rest.
void PassTime(const Json::WideValue& step, Simulator::SimulatedMachine& machine);

}  // namespace Vx::Host
