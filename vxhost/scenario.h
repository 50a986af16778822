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

// Keeps the log lines that have come, and what happened on a simulated machine, for expectations.
// Any thread.
class LogRecorder {
 public:
  void Add(const LogLine& line);
  void AddEvent(const std::wstring& text);

  // Forgets what came before: expectations look at what a step itself brought about.
  void Clear();

  // Waits up to `seconds` for a line that contains `text`.
  bool WaitFor(const std::wstring& text, int seconds) const;

  // Whether an event whose text holds `text` has come.
  bool Happened(const std::wstring& text) const;

 private:
  mutable std::mutex lock;
  std::vector<std::wstring> messages;
  std::vector<std::wstring> events;
};

// What a scenario plays against: a service, and where its log lines can be seen.
struct Stage {
  ServiceSession& session;
  std::function<ServiceSession()> newService;
  LogRecorder& log;
  Console& console;
  Simulator::SimulatedMachine* machine;  // null: the real one
  std::function<void()> showRepeated;    // the log lines that were counted instead of shown
};

// Plays a scenario: a JSON document {"steps": [...]}, whose parts docs/vxhost.md describes. In
// every text ${NAME} stands for a definition. Steps after a failed one are still played, but for a
// scenario that cannot be read nothing is. Answers whether everything that was expected happened.
// Throws std::runtime_error when the file is no scenario.
bool PlayScenario(const std::wstring& path, const std::map<std::wstring, std::wstring>& definitions,
                  Stage& stage);

}  // namespace Vx::Host
