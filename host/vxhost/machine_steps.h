#pragma once

#include <functional>
#include <string>

#include "json/json_text.h"
#include "simulator/simulated_machine.h"

namespace Vx::Host {

// The text that a value of a scenario stands for.
using Expander = std::function<std::wstring(const Json::WideValue&)>;

// Whether `key` is a step about the simulated machine.
bool IsMachineStep(const std::wstring& key);

// Does what the step asks of the machine, but for the passing of time. Throws std::runtime_error.
//   "oobeEndsAfter": seconds                         first-run set-up lasts that long from now
//   "logOn": user, "logOff": true
//   "install": {"family", "fullName", "user"}        without a user: on the machine only
//   "uninstall": {"family", "user", "seconds"}
//   "appServiceStatus": status                       what messages are answered with from now on
//   "registry": {"key", "value", "text"}             without a text: the value goes
//   "firmwareDigits": 6 or 8                         another firmware, without a born-on date
//   "file": {"path", "text"}                         exists in memory only
//   "lockdownMode": mode
//   "asleep": seconds                                time that no wait sees
void ChangeMachine(const Json::WideValue& step, const Expander& expand,
                   Simulator::SimulatedMachine& machine);

// Lets the time of "advance": seconds pass, if the step has it, and everybody come to rest.
void PassTime(const Json::WideValue& step, Simulator::SimulatedMachine& machine);

}  // namespace Vx::Host
