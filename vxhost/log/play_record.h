#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "hosting/json_row.h"
#include "hosting/loaded_module.h"

namespace Vx::Hosting::Tool {

// The kinds of entries: what the player, the service or its machine did.
enum class Happening : std::uint8_t { Call, Command, Event, Log, Failure };

// Returns "call", "command" and so on.
const wchar_t* NameOf(Happening what);

struct RecordEntry {
  std::chrono::milliseconds at{};  // since the start, including a simulated machine's sleep
  Happening what = Happening::Call;
  std::size_t step = 0;      // the scenario's step, from 1
  std::uint32_t thread = 0;  // of the log line or event; set by PlayRecord
  std::wstring text = {};    // for a call, event or failure
  LogLine log = {};
  std::uint32_t command = 0;  // command ID, with request and answer
  std::wstring request = {};
  CommandResult answer = {};
};

struct RecordStep {
  std::size_t line = 0;  // in the scenario file
  std::wstring say;      // empty if the step has no text
  std::chrono::milliseconds begin{};
  std::chrono::milliseconds end{};
};

// Records everything that happens while a scenario plays. Thread-safe.
class PlayRecord {
 public:
  using Now = std::function<std::chrono::milliseconds()>;

  explicit PlayRecord(Now clock) : now(std::move(clock)) {}

  // Starts a step. Expectations only consider their own step.
  void BeginStep(std::size_t line, const std::wstring& say);
  void EndStep();

  // Adds an entry with the current time and step. Call on the thread that logs or causes the event.
  void Add(RecordEntry entry);

  // Returns whether an entry of this kind in the current step contains `text`.
  bool Contains(Happening what, const std::wstring& text) const;

  std::vector<RecordStep> Steps() const;
  std::vector<RecordEntry> Entries() const;

 private:
  Now now;
  mutable std::mutex mutex;  // guards the members below
  std::vector<RecordStep> steps;
  std::vector<RecordEntry> entries;
};

// The result of a scenario, even of one that could not be played.
struct PlayedScenario {
  std::string file;  // as given on the command line
  bool met = false;
  std::string error;  // why it could not be completed; empty if it was
  std::vector<RecordStep> steps;
  std::vector<RecordEntry> entries;
};

// Returns {"id", "code", "meaning", "answer"}. The answer is null if the module returned none, and
// a string if it is not JSON.
JsonRow CommandJson(std::uint32_t id, const CommandResult& answer);

// Returns the entries of one step. Those outside a scenario have step 0.
std::vector<JsonRow> EntriesJson(const std::vector<RecordEntry>& entries, std::size_t step);

// Returns {"scenario", "met", "seconds", "steps": [{"step", "line", "say", "met", "entries"}]}, as
// described in docs/vxhost.md.
JsonRow ScenarioJson(const PlayedScenario& played);

// Returns a JUnit report, with one suite per scenario and one case per step.
std::string JUnitReport(const std::vector<PlayedScenario>& played);

}  // namespace Vx::Hosting::Tool
