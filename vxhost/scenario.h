#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "vxhost/console.h"
#include "vxhost/loaded_module.h"

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

// Plays a scenario: a JSON document {"steps": [...]}, whose parts docs/vxhost.md describes. In
// every text ${NAME} stands for a definition. Returns whether every expectation was met. Steps
// after one that was not are still played. Throws std::runtime_error, without playing a step, when
// the file is not a scenario.
bool PlayScenario(const std::wstring& path, const std::map<std::wstring, std::wstring>& definitions,
                  Stage& stage);

}  // namespace Vx::Host
