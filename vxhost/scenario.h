#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "json/json_text.h"
#include "vxhost/console.h"
#include "vxhost/initial_store.h"
#include "vxhost/loaded_module.h"
#include "vxhost/scenario_check.h"

namespace Vx::Simulator {
class SimulatedMachine;
}  // namespace Vx::Simulator

namespace Vx::Host {

// Keeps log lines and the events of a simulated machine for expectations. Any thread may use it.
class LogRecorder {
 public:
  void Add(const LogLine& line);
  void AddEvent(const std::wstring& text);

  // Forgets everything, because expectations only concern their own step.
  void Clear();

  // Waits up to `seconds` for a line that contains `text`.
  bool WaitFor(const std::wstring& text, int seconds) const;

  // Whether an event has come whose text contains `text`.
  bool Happened(const std::wstring& text) const;

 private:
  mutable std::mutex lock;
  std::vector<std::wstring> messages;
  std::vector<std::wstring> events;
};

// What a scenario plays against: a service, and the record of its log lines.
struct Stage {
  ServiceSession& session;
  std::function<ServiceSession()> newService;
  LogRecorder& log;
  Console& console;
  Simulator::SimulatedMachine* machine;  // null: the real one
  std::function<void()> showRepeated;    // prints the log lines that were only counted
};

// A scenario: a JSON document {"store": ..., "steps": [...]}, whose parts docs/vxhost.md describes.
class Scenario {
 public:
  // Reads and checks the file. Throws std::runtime_error, whose text lists every fault with its
  // line, when it cannot be played as it is.
  Scenario(const std::wstring& path, Definitions definitions, StageKind where);

  // Writes the store to begin with. To be called before the service is created.
  void Prepare() const;

  // Plays every step, also after one whose expectation was not met. Returns whether all were met.
  // Throws std::runtime_error when a step cannot be carried out.
  bool Play(Stage& stage) const;

 private:
  Json::WideDocument document;
  Definitions definitions;
  InitialStore initialStore;
};

}  // namespace Vx::Host
