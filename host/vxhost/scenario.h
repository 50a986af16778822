#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "host/vxhost/console.h"
#include "host/vxhost/loaded_module.h"

namespace Vx::Host {

// Keeps the log lines that have come, for expectations. Any thread.
class LogRecorder {
 public:
  void Add(const LogLine& line);

  // Forgets what came before: expectations look at what a step itself brought about.
  void Clear();

  // Waits up to `seconds` for a line that contains `text`.
  bool WaitFor(const std::wstring& text, int seconds) const;

 private:
  mutable std::mutex lock;
  std::vector<std::wstring> messages;
};

// What a scenario plays against: a service, and where its log lines can be seen.
struct Stage {
  ServiceSession& session;
  LogRecorder& log;
  Console& console;
};

// Plays a scenario: a JSON document {"steps": [...]}, each step an object with one of
//   "say": text                     a heading for the reader
//   "exec": id, "request": object or text, "expect": {"code": "0x...", "answer": ..., "log": text}
//   "start": true                   the service's start
//   "power": code, "session": code  events, with "expect": {"log": text}
//   "copy": {"from", "to"}, "remove": path, "run": path, "arguments": text (a program that is
//   ended with the scenario)
//   "waitFor": {"file", "contains", "seconds", "quiet"} (quiet: the content is not shown)
// In every text ${NAME} stands for a definition. Steps after a failed one are still played, but for
// a scenario that cannot be read nothing is. Answers whether everything that was expected happened.
// Throws std::runtime_error when the file is no scenario.
bool PlayScenario(const std::wstring& path, const std::map<std::wstring, std::wstring>& definitions,
                  Stage& stage);

}  // namespace Vx::Host
