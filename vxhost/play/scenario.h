#pragma once

#include <functional>
#include <string>
#include <vector>

#include "hosting/loaded_module.h"
#include "json/json_text.h"
#include "vxhost/common/console.h"
#include "vxhost/log/play_record.h"
#include "vxhost/play/initial_store.h"
#include "vxhost/play/scenario_check.h"

namespace Vx::Simulator {
class SimulatedMachine;
}  // namespace Vx::Simulator

namespace Vx::Hosting::Tool {

// A service under test and the record of what happens.
struct ScenarioContext {
  ServiceSession& session;
  std::function<ServiceSession()> newService;
  PlayRecord& record;
  Console& console;
  Simulator::SimulatedMachine* machine;  // null for the real one
  std::function<void()> showRepeated;    // prints repeat counts not yet shown
};

// A scenario: a JSON document {"store": ..., "steps": [...]}, described in docs/vxhost.md.
class Scenario {
 public:
  // Reads and checks the file. Throws std::runtime_error that lists every fault with its line.
  Scenario(const std::wstring& path, Definitions definitions, HarnessKind where);

  // Writes the initial store. Call before creating the service.
  void Prepare() const;

  // Plays every step, even after an expectation is not met. Returns whether all were met. Throws
  // std::runtime_error if a step cannot be carried out.
  bool Play(ScenarioContext& context) const;

 private:
  Json::WideDocument document;
  std::vector<std::size_t> lines;  // line number of each step
  Definitions definitions;
  InitialStore initialStore;
};

}  // namespace Vx::Hosting::Tool
