#include "vxhost/module_commands.h"

#include <chrono>
#include <map>
#include <stdexcept>

#include <windows.h>

#include "simulator/simulated_machine.h"
#include "vxhost/scenario.h"
#include "vxhost/text.h"
#include "vxhost/theatre.h"

namespace Vx::Host {

namespace {

std::map<std::wstring, std::wstring> Definitions(const std::vector<std::string>& arguments) {
  std::map<std::wstring, std::wstring> definitions;
  for (const std::string& argument : arguments) {
    const std::size_t equals = argument.find('=');
    if (equals == std::string::npos) throw std::runtime_error("--define needs NAME=VALUE");
    definitions[Wide(argument.substr(0, equals))] = Wide(argument.substr(equals + 1));
  }
  return definitions;
}

}  // namespace

int Exec(const Options& options, Console& console) {
  const auto theatre = MakeTheatre(options, console);
  const std::wstring request = TextOrFile(options.request);
  console.Request(options.id, request);
  const Answer answer = theatre->Open().session.Execute(options.id, request, Wide(options.caller));
  console.Result(answer);
  return answer.code == 0 ? kDone : kNotMet;
}

int Scenario(const Options& options, Console& console) {
  const auto definitions = Definitions(options.definitions);
  bool met = true;
  for (const std::string& file : options.scenarios) {
    if (options.scenarios.size() > 1) console.Lines("\n==== " + file);
    const auto theatre = MakeTheatre(options, console);
    met = PlayScenario(FullPath(file), definitions, theatre->Open()) && met;
  }
  console.Lines(met ? "\nEverything that was expected happened."
                    : "\nNot everything that was expected happened: see the lines with !!");
  return met ? kDone : kNotMet;
}

int Events(const Options& options, Console& console) {
  if (options.power.empty() && options.sessions.empty()) {
    throw std::runtime_error("no event to send: name some with --power or --session");
  }
  const auto theatre = MakeTheatre(options, console);
  const Stage& stage = theatre->Open();
  for (const std::uint32_t code : options.power) {
    console.Line("-> power event " + std::to_string(code));
    stage.session.Slots().power_event_task(code);
  }
  for (const std::uint32_t code : options.sessions) {
    console.Line("-> session change " + std::to_string(code));
    stage.session.Slots().OnSessionChange(code);
  }
  // Deliveries run on their own threads.
  if (stage.machine != nullptr) {
    stage.machine->clock.Advance(std::chrono::seconds(options.seconds));
  } else {
    Sleep(static_cast<DWORD>(options.seconds) * 1000);
  }
  return kDone;
}

}  // namespace Vx::Host
