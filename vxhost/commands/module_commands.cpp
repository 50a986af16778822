#include "vxhost/commands/commands.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <map>
#include <memory>
#include <stdexcept>

#include <windows.h>

#include "hosting/store_hold.h"
#include "hosting/text.h"
#include "json/json_object.h"
#include "platform/windows_runtime_error.h"
#include "simulator/simulated_machine.h"
#include "vxhost/log/play_record.h"
#include "vxhost/log/timeline_page.h"
#include "vxhost/play/harness.h"
#include "vxhost/play/scenario.h"
#include "vxhost/service/pipe_client.h"
#include "vxhost/subscriptions/explanation.h"

namespace Vx::Hosting::Tool {

namespace {

Definitions DefinitionsOf(const std::vector<std::string>& arguments) {
  Definitions definitions;
  for (const std::string& argument : arguments) {
    const std::size_t equals = argument.find('=');
    if (equals == std::string::npos) throw std::runtime_error("--define needs NAME=VALUE");
    definitions[Wide(argument.substr(0, equals))] = Wide(argument.substr(equals + 1));
  }
  return definitions;
}

struct ExecOptions {
  std::uint32_t id = 0;
  std::string request = "{}";
  std::string caller = "vxhost";
  std::uint32_t process = 0;
};

// Returns the request given as an argument. Compacts a file's request to unsubscribe, because the
// module compares the text with the compact form that it stored.
std::wstring RequestText(const ExecOptions& options) {
  constexpr std::uint32_t kUnsubscribe[] = {15, 19};
  std::wstring text = TextOrFile(options.request);
  const bool isFile = options.request.rfind('@', 0) == 0;
  if (!isFile || std::ranges::find(kUnsubscribe, options.id) == std::end(kUnsubscribe)) return text;
  try {
    return Json::JsonObject::Parse(text).Stringify();
  } catch (const Platform::WindowsRuntimeError&) {
    return text;  // the module rejects it and reports the error
  }
}

int Exec(const ExecOptions& options, const ModuleOptions& module, Console& console) {
  const std::wstring request = RequestText(options);
  console.Request(options.id, request);
  const CommandResult answer =
      Send(options.id, request, options.caller, module, console, options.process);
  if (console.WritesJson()) {
    console.JsonResult(CommandJson(options.id, answer));
  } else {
    console.Result(answer, VerdictOf(options.id, answer));
  }
  return WasDone(answer) ? kDone : kNotMet;
}

struct ScenarioOptions {
  std::vector<std::string> scenarios;
  std::vector<std::string> definitions;
  std::string junit;
  std::string timeline;
};

// Scenarios to play. All are read before the first is played.
struct ScenarioRun {
  std::vector<std::unique_ptr<Scenario>> scenarios;
  std::vector<PlayedScenario> played;  // one each; if it cannot be played, only `error` is set
  std::string faults;
};

ScenarioRun Read(const ScenarioOptions& options, const ModuleOptions& module) {
  const auto definitions = DefinitionsOf(options.definitions);
  ScenarioRun run;
  for (const std::string& file : options.scenarios) {
    PlayedScenario& entry = run.played.emplace_back();
    entry.file = file;
    try {
      run.scenarios.push_back(std::make_unique<Scenario>(FullPath(file), definitions, module));
    } catch (const std::runtime_error& error) {
      entry.error = error.what();
      run.faults += (run.faults.empty() ? "" : "\n") + entry.error;
    }
  }
  return run;
}

// Plays a scenario in its own harness. An error is only stored, so reports are still written.
void Play(const ModuleOptions& module, const Scenario& scenario, Console& console,
          PlayedScenario& played) {
  const auto context = MakeHarness(module, console, [&] { scenario.Prepare(); });
  try {
    played.met = scenario.Play(*context);
  } catch (const std::runtime_error& error) {
    played.error = error.what();
  }
  played.steps = context->record.Steps();
  played.entries = context->record.Entries();
}

constexpr char kMet[] = "Everything that was expected happened.";
constexpr char kUnmet[] = "Not everything that was expected happened";

// Writes the page of one scenario, even if it was cut short.
void WriteTimeline(const std::string& file, const std::vector<PlayedScenario>& played) {
  const PlayedScenario& one = played.front();
  PageHead head{.title = Wide(one.file.substr(one.file.find_last_of("/\\") + 1)),
                .verdict = Wide(!one.error.empty() ? one.error
                                : one.met          ? kMet
                                                   : kUnmet),
                .met = one.met};
  WriteTextFile(FullPath(file), TimelinePage(head, one.steps, one.entries));
}

int PlayScenarios(const ScenarioOptions& options, const ModuleOptions& module, Console& console) {
  if (!options.timeline.empty() && options.scenarios.size() != 1) {
    throw std::runtime_error("--timeline draws one scenario");
  }
  ScenarioRun run = Read(options, module);
  const auto report = [&] {
    if (!options.junit.empty()) WriteTextFile(FullPath(options.junit), JUnitReport(run.played));
    if (!options.timeline.empty()) WriteTimeline(options.timeline, run.played);
  };
  if (!run.faults.empty()) {
    report();
    throw std::runtime_error(run.faults);
  }
  bool met = true;
  for (std::size_t i = 0; i < run.scenarios.size(); ++i) {
    PlayedScenario& played = run.played[i];
    if (run.scenarios.size() > 1 && !console.WritesJson()) console.Lines("\n==== " + played.file);
    Play(module, *run.scenarios[i], console, played);
    if (!played.error.empty()) {
      report();
      throw std::runtime_error(played.file + ": " + played.error);
    }
    met = played.met && met;
    if (console.WritesJson()) console.JsonResult(ScenarioJson(played));
  }
  report();
  if (!console.WritesJson()) {
    console.Lines("\n" + (met ? kMet : kUnmet + std::string(": see the lines with !!")));
  }
  return met ? kDone : kNotMet;
}

struct EventOptions {
  std::vector<std::uint32_t> power;
  std::vector<std::uint32_t> sessions;
  int seconds = 5;
};

// Prints how many deliveries are still waiting and will be dropped at the end of this run.
void NoteWaiting(const std::vector<RecordEntry>& entries, Console& console) {
  std::map<std::uint64_t, std::uint64_t> waiting;  // delays in milliseconds, by delivery
  for (const RecordEntry& entry : entries) {
    if (!entry.log.record || entry.log.record->delivery == 0) continue;
    const DecisionRecord& record = *entry.log.record;
    waiting.erase(record.delivery);
    if (record.decision == L"waiting") waiting[record.delivery] = record.milliseconds;
  }
  if (waiting.empty()) return;
  const auto longest =
      std::ranges::max_element(waiting, {}, [](const auto& one) { return one.second; });
  console.Note(std::to_string(waiting.size()) + " deliveries are still waiting, for up to " +
               std::to_string(longest->second / 1000) +
               " s, and will not happen: use more --seconds");
}

int Events(const EventOptions& options, const ModuleOptions& module, Console& console) {
  if (options.power.empty() && options.sessions.empty()) {
    throw std::runtime_error("no event to send: name some with --power or --session");
  }
  const auto context = MakeHarness(module, console);
  const auto call = [&](const std::string& text) {
    context->record.Add({.text = Wide(text)});
    console.Note("-> " + text);
  };
  for (const std::uint32_t code : options.power) {
    call("power event " + std::to_string(code));
    context->session.Slots()->power_event_task(code);
  }
  for (const std::uint32_t code : options.sessions) {
    call("session change " + std::to_string(code));
    context->session.Slots()->OnSessionChange(code);
  }
  // Wait for the deliveries, which run on their own threads.
  if (context->machine != nullptr) {
    context->machine->clock.Advance(std::chrono::seconds(options.seconds));
  } else {
    Sleep(static_cast<DWORD>(options.seconds) * 1000);
  }
  const auto entries = context->record.Entries();
  NoteWaiting(entries, console);
  if (console.WritesJson()) console.JsonResult(JsonRow{{L"entries", EntriesJson(entries, 0)}});
  return kDone;
}

constexpr char kExecFooter[] =
    "With --service nothing is sent unless the pipe belongs to the process that the service\n"
    "manager names, or to that of --process, which \"service run\" names.\n"
    "Exit code 1 if the result code is not 0x00000000, if the module refused the request, and if\n"
    "it stored a subscription that never runs.\n"
    "  vxhost exec 22\n"
    "  vxhost exec 9 @subscription.json --service";
constexpr char kScenarioFooter[] =
    "A scenario is a JSON file of steps; see the samples, and docs/vxhost.md for every part.\n"
    "Exit code 1 when an expectation was not met: the lines with !! name it.\n"
    "  vxhost --simulate scenario scenarios\\first_boot.json";
constexpr char kEventsFooter[] =
    "Power: 4 suspending, 7 resumed by the user, 10 power status changed, 18 resumed.\n"
    "Session: 1 console connected, 5 logon, 6 logoff, 7 locked, 8 unlocked.\n"
    "  vxhost events --power 4 7 --seconds 10";

}  // namespace

CommandResult Send(std::uint32_t id, const std::wstring& request, const std::string& caller,
                   const ModuleOptions& module, Console& console, std::uint32_t process) {
  if (!module.service.empty()) {
    return ConnectToService(Wide(module.service), process).Execute({id, request});
  }
  if (process != 0) throw std::runtime_error("--process needs --service");
  const auto harness = MakeHarness(module, console);
  if (!module.simulate) {
    // Wait for the store here, because the module would wait without a limit or a notice.
    const StoreHold isFree(StoreUse::Write, module.limits);
  }
  return harness->session.Execute(id, request, Wide(caller));
}

void AddModuleCommands(CommandLine& line) {
  constexpr unsigned kShared = Shared::Leading | Shared::Json;
  const auto [exec, sent] = line.Add({"exec", "run one command and print its answer", kExecFooter},
                                     &Exec, kShared | Shared::Timeout | Shared::Service);
  exec.add_option("id", sent.id, "the number of the command")->required();
  exec.add_option("request", sent.request, "the request's JSON, @FILE, or @- for standard input");
  exec.add_option("--caller", sent.caller, "the client's identity")->capture_default_str();
  exec.add_option("--process", sent.process,
                  "the service's process, if it is not the one that is installed by that name");

  const auto [scenario, play] =
      line.Add({"scenario", "play a scenario and check what it expects", kScenarioFooter},
               &PlayScenarios, kShared);
  scenario.add_option("file", play.scenarios, "the scenario, or several, one after the other")
      ->required();
  scenario.add_option("--define", play.definitions, "NAME=VALUE for ${NAME} in it");
  scenario.add_option("--junit", play.junit,
                      "write a JUnit report, with one test case per step, into this file");
  scenario.add_option("--timeline", play.timeline,
                      "draw what happened as a web page, into this file");

  const auto [events, codes] =
      line.Add({"events", "send power and session events", kEventsFooter}, &Events, kShared);
  events.add_option("--power", codes.power, "power broadcast codes (PBT_)");
  events.add_option("--session", codes.sessions, "session change codes (WTS_SESSION_)");
  events.add_option("--seconds", codes.seconds, "how long to wait for deliveries")
      ->check(CLI::Range(0, kLongestSeconds))
      ->capture_default_str();
}

}  // namespace Vx::Hosting::Tool
