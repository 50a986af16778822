#include "vxhost/commands/commands.h"

#include <charconv>
#include <optional>
#include <stdexcept>

#include "companion/qubo_facade.h"
#include "companion/resume_decision.h"
#include "hosting/text.h"
#include "json/json_text.h"
#include "platform/machine.h"
#include "simulator/simulated_machine.h"
#include "storage/cap_data_store.h"
#include "vxhost/play/harness.h"
#include "vxhost/play/played_keys.h"
#include "vxhost/store/store.h"
#include "vxhost/subscriptions/explanation.h"
#include "vxhost/subscriptions/signing_keys.h"
#include "vxhost/subscriptions/subscription_check.h"

namespace Vx::Hosting::Tool {

namespace {

std::string NameOf(Verdict verdict) {
  static constexpr const char* kNames[] = {"ok", "hint", "NEVER"};  // in the enum's order
  return kNames[static_cast<std::size_t>(verdict)];
}

std::string LineOf(const Finding& finding) {
  std::wstring text = finding.key.empty() ? finding.text : finding.key + L": " + finding.text;
  if (!finding.found.empty()) text += L"; found " + finding.found;
  if (!finding.wanted.empty()) text += L"; wanted " + finding.wanted;
  return "  " + Cell(NameOf(finding.verdict), 7) + Utf8(text);
}

void Show(const std::string& request, const SubscriptionCheck& check, Console& console) {
  std::vector<JsonRow> findings;
  std::vector<std::string> lines;
  for (const Finding& finding : check.findings) {
    const bool never = finding.verdict == Verdict::Never;
    findings.push_back({{L"verdict", never ? "never" : NameOf(finding.verdict)},
                        {L"key", finding.key},
                        {L"found", finding.found},
                        {L"wanted", finding.wanted},
                        {L"text", finding.text}});
    lines.push_back(LineOf(finding));
  }
  lines.emplace_back(check.Runs() ? "It can run." : "It would never run.");
  console.Show({{L"request", request}, {L"runs", check.Runs()}, {L"findings", findings}}, lines);
}

constexpr char kValidateFooter[] =
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

struct ExplainOptions {
  std::string kind;
  std::string which;
  bool all = false;
};

std::uint32_t CodeOf(const std::string& written) {
  std::string_view text = written;
  const bool hexadecimal = text.starts_with("0x");
  if (hexadecimal) text.remove_prefix(2);
  std::uint32_t code = 0;
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), code, hexadecimal ? 16 : 10);
  if (error != std::errc() || end != text.data() + text.size()) {
    throw std::runtime_error(written + " is not the code of an event");
  }
  return code;
}

Occasion OccasionOf(const ExplainOptions& options) {
  if (options.all) {
    if (!options.kind.empty()) throw std::runtime_error("--all takes no event");
    return {};
  }
  if (options.which.empty()) {
    throw std::runtime_error("name an event, such as power 18 or uninstall FAMILY, or --all");
  }
  const bool uninstall = options.kind == "uninstall";
  for (const SubscriptionForm* kind : kSubscriptionForms) {
    if (uninstall && kind->family != nullptr) return {kind, 0, Wide(options.which)};
    if (kind->family == nullptr && options.kind == kind->name) {
      return {kind, CodeOf(options.which), {}};
    }
  }
  throw std::runtime_error("unknown event " + options.kind +
                           DidYouMean(options.kind, {"power", "platform", "uninstall", "resume"}));
}

std::vector<std::string> LinesOf(const Explanation& one) {
  std::vector<std::string> lines{LabelOf(one.subscription) + FateText(one) +
                                 (one.action.empty() ? "" : ": " + Utf8(one.action))};
  for (const auto& reason : one.reasons) lines.push_back("                because " + Utf8(reason));
  return lines;
}

// Explains whether a resume would launch the companion app.
int ExplainResume(Console& console) {
  using Tessel::Server::Services::Orvane::Qubo::Explain;
  using Tessel::Server::Services::Orvane::Qubo::QuboFacade;
  using Tessel::Server::Storage::CapDataStore;
  using Tessel::Server::Storage::StoreState;
  // Reading through the module's store creates its folders, so use a private one if there is none.
  std::optional<PrivateStore> none;
  if (LookAtFile(CapDataStore::PathOfFile()).reading.state == StoreState::Missing) none.emplace();
  std::vector<std::string> lines;
  for (const auto& line : Explain(QuboFacade().ExplainResume())) lines.push_back(Utf8(line));
  console.Show({{L"rules", lines}}, lines);
  return kDone;
}

int RunExplain(const ExplainOptions& options, const ModuleOptions& module, Console& console) {
  if (options.kind == "resume" && options.which.empty() && !options.all) {
    return ExplainResume(console);
  }
  const Occasion occasion = OccasionOf(options);
  const auto subscriptions = SubscriptionsOf(LookAtStore(module.limits));
  const ModulePins pins(module.Path());
  if (occasion.kind != nullptr && occasion.kind->family == nullptr &&
      MeaningOf(occasion.kind->codes, occasion.code) == nullptr) {
    console.Note(std::string(occasion.kind->name) + " event " + std::to_string(occasion.code) +
                 " never occurs");
  }
  for (const Explanation& one : Explain(subscriptions, occasion, pins.Restricted())) {
    JsonRow row = RowOf(one);
    row.Add({L"wait", one.wait});
    console.Show(row, LinesOf(one));
  }
  if (subscriptions.empty()) console.Note("(none is stored)");
  return kDone;
}

constexpr char kExplainFooter[] =
    "Starts, sends and stores nothing. The keys are those of the module. Judges with this\n"
    "account's rights: another one may not use the console session's winlogon.exe, as the service\n"
    "may.\n"
    "  vxhost explain power 18\n"
    "  vxhost explain uninstall Maker.App_abcdefgh12345\n"
    "  vxhost explain resume\n"
    "  vxhost explain --all --json";

}  // namespace

void AddExplainCommands(CommandLine& line) {
  const auto [validate, requests] =
      line.Add({"validate", "check subscriptions before sending them", kValidateFooter}, &Validate,
               Shared::Dll | Shared::Simulate | Shared::Json);
  validate.add_option("request", requests, "a subscription's JSON, or @FILE; or several")
      ->required();

  const auto [explain, options] =
      line.Add({"explain",
                "explain what an event would do for each stored subscription, or a resume for the\n"
                "companion app",
                kExplainFooter},
               &RunExplain, Shared::Dll | Shared::Store | Shared::Timeout | Shared::Json);
  explain.add_option("kind", options.kind, "power, platform, uninstall or resume");
  explain.add_option("event", options.which, "its code, or the family of the package");
  explain.add_flag("--all", options.all, "each subscription for its own event");
}

}  // namespace Vx::Hosting::Tool
