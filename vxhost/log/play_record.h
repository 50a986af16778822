#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "hosting/loaded_module.h"
#include "hosting/module_log.h"

namespace Vx::Host {

// What a player sent to a service, what the service logged and what its machine did meanwhile.
enum class Happening : std::uint8_t { Call, Command, Event, Log, Failure };

struct RecordEntry {
  std::chrono::milliseconds at{};  // since the beginning, with the sleep of a simulated machine
  Happening what = Happening::Call;
  std::size_t step = 0;      // of the scenario, from 1
  std::uint32_t thread = 0;  // that logged or caused the event
  std::wstring text = {};    // of a call, an event or a failure
  LogLine log = {};
  std::uint32_t command = 0;  // its id, with request and answer
  std::wstring request = {};
  CommandResult answer = {};
};

// A step that was played.
struct RecordStep {
  std::size_t line = 0;  // in the scenario's file
  std::wstring say;      // empty if the step says nothing
  std::chrono::milliseconds begin{};
  std::chrono::milliseconds end{};
};

// Keeps all that happens while a scenario plays, for its expectations and for reports. Any thread
// may use it.
class PlayRecord {
 public:
  using Now = std::function<std::chrono::milliseconds()>;

  explicit PlayRecord(Now clock) : now(std::move(clock)) {}

  // Expectations concern their own step, which begins here.
  void BeginStep(std::size_t line, const std::wstring& say);
  void EndStep();

  void AddCall(const std::wstring& text);
  void AddCommand(std::uint32_t id, const std::wstring& request, const CommandResult& answer);
  void AddEvent(const std::wstring& text);  // on the thread that causes it
  void AddLog(const LogLine& line);         // on the thread that logs
  void AddFailure(const std::wstring& text);

  // Waits up to `seconds` of real time for a line of this step that contains `text`.
  bool WaitFor(const std::wstring& text, int seconds) const;

  // Whether an event of this step contains `text`.
  bool Happened(const std::wstring& text) const;

  std::vector<RecordStep> Steps() const;
  std::vector<RecordEntry> Entries() const;

 private:
  void Add(RecordEntry entry);
  bool Contains(Happening what, const std::wstring& text) const;

  Now now;
  mutable std::mutex mutex;  // guards what follows
  std::vector<RecordStep> steps;
  std::vector<RecordEntry> entries;
  std::size_t stepBegin = 0;  // of the entries
};

// Polls `condition` every few milliseconds of real time. Returns whether it was met in time.
bool WaitUntil(int seconds, const std::function<bool()>& condition);

}  // namespace Vx::Host
