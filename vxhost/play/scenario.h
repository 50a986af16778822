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

namespace Vx::Host {

// What a scenario plays against: a service, and the record of what happens.
struct ScenarioContext {
  ServiceSession& session;
  std::function<ServiceSession()> newService;
  PlayRecord& record;
  Console& console;
  Simulator::SimulatedMachine* machine;  // null: the real one
  std::function<void()> showRepeated;    // prints the log lines that were only counted
};

// A scenario: a JSON document {"store": ..., "steps": [...]}, whose parts docs/vxhost.md describes.
class Scenario {
 public:
  // Reads and checks the file. Throws std::runtime_error, whose text lists every fault with its
  // line, when it cannot be played as it is.
  Scenario(const std::wstring& path, Definitions definitions, HarnessKind where);

  // Writes the store to begin with. To be called before the service is created.
  void Prepare() const;

  // Plays every step, also after one whose expectation was not met. Returns whether all were met.
  // Throws std::runtime_error when a step cannot be carried out.
  bool Play(ScenarioContext& context) const;

 private:
  Json::WideDocument document;
  std::vector<std::size_t> lines;  // of the steps
  Definitions definitions;
  InitialStore initialStore;
};

}  // namespace Vx::Host
