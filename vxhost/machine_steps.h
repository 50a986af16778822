#pragma once

#include <functional>
#include <string>

#include "json/json_text.h"
#include "simulator/simulated_machine.h"

namespace Vx::Host {

// The text that a value of a scenario stands for.
using Expander = std::function<std::wstring(const Json::WideValue&)>;

// A member of a step or of a part of it; null when there is none.
const Json::WideValue* Find(const Json::WideValue& object, const wchar_t* key);

// One that has to be there. Throws std::runtime_error.
const Json::WideValue& Member(const Json::WideValue& object, const wchar_t* key);

// Whether `key` is a step about the simulated machine.
bool IsMachineStep(const std::wstring& key);

// Does what the step asks of the machine (docs/vxhost.md has the parts), but for the passing of
// time. Throws std::runtime_error.
void ChangeMachine(const Json::WideValue& step, const Expander& expand,
                   Simulator::SimulatedMachine& machine);

// Lets the time of "advance": seconds pass, if the step has it, and everybody come to rest.
void PassTime(const Json::WideValue& step, Simulator::SimulatedMachine& machine);

}  // namespace Vx::Host
