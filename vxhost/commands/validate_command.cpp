#include "vxhost/commands/commands.h"

#include <optional>
#include <stdexcept>

#include "hosting/text.h"
#include "json/json_text.h"
#include "platform/machine.h"
#include "simulator/simulated_machine.h"
#include "vxhost/play/played_keys.h"
#include "vxhost/subscriptions/module_pins.h"
#include "vxhost/subscriptions/subscription_check.h"

namespace Vx::Hosting::Tool {

namespace {

const wchar_t* NameOf(Verdict verdict) {
  static constexpr const wchar_t* kNames[] = {L"ok", L"hint", L"NEVER"};  // in the enum's order
  return kNames[static_cast<std::size_t>(verdict)];
}

std::wstring Line(const Finding& finding) {
  constexpr std::size_t kWidth = 7;
  std::wstring line = NameOf(finding.verdict);
  line = L"  " + line + std::wstring(kWidth - line.size(), L' ');
  if (!finding.key.empty()) line += finding.key + L": ";
  line += finding.text;
  if (!finding.found.empty()) line += L"; found " + finding.found;
  if (!finding.wanted.empty()) line += L"; wanted " + finding.wanted;
  return line;
}

void Show(const std::string& request, const SubscriptionCheck& check, Console& console) {
  std::vector<JsonRow> findings;
  std::vector<std::string> lines;
  for (const Finding& finding : check.findings) {
    const bool never = finding.verdict == Verdict::Never;
    findings.push_back({{L"verdict", never ? L"never" : NameOf(finding.verdict)},
                        {L"key", finding.key},
                        {L"found", finding.found},
                        {L"wanted", finding.wanted},
                        {L"text", finding.text}});
    lines.push_back(Utf8(Line(finding)));
  }
  lines.emplace_back(check.Runs() ? "It can run." : "It would never run.");
  console.Show({{L"request", request}, {L"runs", check.Runs()}, {L"findings", findings}}, lines);
}

constexpr char kFooter[] =
    "Exit code 0: all can run here; 1: one would never run, and the lines with NEVER give the "
    "reasons.\n"
    "The keys are those of the module. With --simulate the machine is a simulated one,\n"
    "without packages, and the keys those of the service that is built into vxhost.\n"
    "  vxhost validate @subscription.json";

using Requests = std::vector<std::string>;

int Validate(const Requests& requests, const ModuleOptions& module, Console& console) {
  std::optional<ModulePins> pins;
  std::optional<Simulator::SimulatedMachine> simulated;
  std::optional<Platform::MachineScope> scope;
  if (module.simulate) {
    if (!module.dll.empty()) throw std::runtime_error("--simulate does not use --dll");
    simulated.emplace();
    scope.emplace([&](Platform::Machine& machine) { simulated->Install(machine); });
  } else {
    pins.emplace(module.Path());
  }
  const auto keys = pins ? pins->Restricted() : Tessel::Security::BuiltRestrictedKeys();
  int code = kDone;
  for (const std::string& request : requests) {
    const SubscriptionCheck check = CheckSubscription(TextOrFile(request), keys);
    if (!check.Runs()) code = kNotMet;
    if (requests.size() > 1 && !console.WritesJson()) console.Heading(request);
    Show(request, check, console);
  }
  return code;
}

}  // namespace

void AddValidateCommand(CommandLine& line) {
  const auto [validate, requests] =
      line.Add({"validate", "check subscriptions before sending them", kFooter}, &Validate,
               Shared::Dll | Shared::Simulate | Shared::Json);
  validate.add_option("request", requests, "a subscription's JSON, or @FILE; or several")
      ->required();
}

}  // namespace Vx::Hosting::Tool
