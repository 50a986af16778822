#include "vxhost/commands/commands.h"

#include <algorithm>
#include <charconv>
#include <initializer_list>
#include <optional>
#include <stdexcept>

#include "companion/qubo_facade.h"
#include "companion/resume_decision.h"
#include "events/package_event.h"
#include "hosting/store_hold.h"
#include "hosting/text.h"
#include "json/json_object.h"
#include "json/json_text.h"
#include "platform/machine.h"
#include "records/record.h"
#include "simulator/simulated_machine.h"
#include "storage/cap_data_store.h"
#include "storage/request_manager.h"
#include "vxhost/play/harness.h"
#include "vxhost/play/played_keys.h"
#include "vxhost/store/store.h"
#include "vxhost/subscriptions/explanation.h"
#include "vxhost/subscriptions/signing_keys.h"
#include "vxhost/subscriptions/subscription_check.h"

namespace Vx::Hosting::Tool {

namespace {

using namespace Tessel::Server::Services::Orvane;
namespace Records = Tessel::Server::Records;

std::vector<std::string> LinesOf(const Explanation& one) {
  const StoredSubscription& subscription = one.subscription;
  const std::string event = one.event.empty() ? subscription.kind->name : Utf8(one.event);
  std::vector<std::string> lines{
      LabelOf(subscription) + Cell(event, 14) +
      Cell(one.delay.empty() ? "-" : Utf8(one.delay) + " s", 7) +
      (one.action.empty() ? Utf8(subscription.text.value_or(L"")) : Utf8(one.action))};
  for (const std::wstring& reason : one.reasons) {
    lines.push_back(std::string(16, ' ') + FateText(one) + ": " + Utf8(reason));
  }
  return lines;
}

int List(const NoOptions&, const ModuleOptions& module, Console& console) {
  const auto subscriptions = SubscriptionsOf(LookAtStore(module.limits));
  const ModulePins pins(module.Path());
  if (!console.WritesJson()) {
    console.Line("  NO  HASH      EVENT         DELAY  ACTION");
    if (subscriptions.empty()) console.Line("(none is stored)");
  }
  for (const Explanation& one : Explain(subscriptions, {}, pins.Restricted())) {
    JsonRow row = RowOf(one);
    row.Add({L"delay", one.delay});
    row.Add({L"valid", one.fate == Fate::Runs});
    row.Add({L"text", one.subscription.text.value_or(L"")});
    console.Show(row, LinesOf(one));
  }
  return kDone;
}

// Sends the command. Returns whether the module's decision is `wanted`.
bool Sends(std::uint32_t command, const std::wstring& text, Records::Decision wanted,
           const std::string& caller, const ModuleOptions& module, Console& console) {
  const CommandResult answer = Send(command, text, caller, module, console);
  const bool met = answer.decision == Records::NameOf(wanted).word;
  if (!met) {
    const std::string verdict = VerdictOf(command, answer);
    console.Note(verdict.empty() ? "result " + Describe(answer.code) : verdict);
  }
  return met;
}

struct AddOptions {
  std::optional<std::uint32_t> power;
  std::optional<std::uint32_t> platform;
  std::string uninstalling;
  std::string uninstalled;
  std::string run;
  std::string arguments;
  std::string send;
  std::string appService;
  std::string payload = "{}";
  std::string trigger;
  std::string delay;
  bool force = false;
  std::string caller = "vxhost";
};

const SubscriptionForm& KindOf(const AddOptions& options) {
  return options.power ? kPowerForm : options.platform ? kZephraForm : kPackageForm;
}

std::uint32_t EventOf(const AddOptions& options) {
  if (options.power) return *options.power;
  if (options.platform) return *options.platform;
  return static_cast<std::uint32_t>(options.uninstalled.empty() ? PackageCatalogEvent::Uninstalling
                                                                : PackageCatalogEvent::Uninstalled);
}

Json::WideDocument PayloadOf(const AddOptions& options) {
  constexpr wchar_t kTrigger[] = L"customTriggerGUID";
  Json::WideDocument payload;
  if (!Json::ParseJson(payload, TextOrFile(options.payload)) || !payload.IsObject()) {
    throw std::runtime_error("--payload needs a JSON object");
  }
  if (options.trigger.empty()) return payload;
  if (payload.HasMember(kTrigger)) {
    throw std::runtime_error("the payload already names a trigger; omit --trigger");
  }
  auto& pool = payload.GetAllocator();
  payload.AddMember(kTrigger, Json::WideValue(Wide(options.trigger), pool), pool);
  return payload;
}

std::wstring Compose(const AddOptions& options) {
  const auto count = [](std::initializer_list<bool> given) {
    return std::ranges::count(given, true);
  };
  if (count({options.power.has_value(), options.platform.has_value(), !options.uninstalling.empty(),
             !options.uninstalled.empty()}) != 1) {
    throw std::runtime_error("name one of --power, --platform, --uninstalling and --uninstalled");
  }
  const bool launches = !options.run.empty();
  if (count({launches, !options.send.empty()}) != 1) {
    throw std::runtime_error("name one of --run and --send");
  }
  const SubscriptionForm& kind = KindOf(options);
  JsonRow parameters{};
  if (launches) {
    parameters.Add({L"path", options.run});
    if (!options.arguments.empty()) parameters.Add({L"arguments", options.arguments});
  } else {
    parameters.Add({L"packageFamilyName", options.send});
    parameters.Add({L"appServiceName", options.appService});
    parameters.Add({L"payload", PayloadOf(options)});
  }
  if (!options.delay.empty()) parameters.Add({L"delayDeliverySec", options.delay});
  JsonRow request{{kind.event, EventOf(options)}, {kind.action, launches ? 1 : 2}};
  if (kind.family != nullptr) {
    request.Add({kind.family, options.uninstalling + options.uninstalled});
  }
  request.Add({kind.parameters, parameters});
  return request.Text();
}

// Prints the subscription, and whether it was added or removed. Returns the exit code.
int Report(const wchar_t* done, const std::wstring& text, bool succeeded, Console& console) {
  const std::wstring hash = text.empty() ? std::wstring() : Records::SubscriptionHash(text);
  const std::wstring what = text.empty() ? L"" : L": " + hash + L" " + text;
  console.Show({{done, succeeded}, {L"hash", hash}, {L"text", text}},
               {Utf8(std::wstring(succeeded ? L"" : L"not ") + done + what)});
  return succeeded ? kDone : kNotMet;
}

int Add(const AddOptions& options, const ModuleOptions& module, Console& console) {
  const std::wstring text = Compose(options);
  const SubscriptionCheck check = CheckSubscription(text, ModulePins(module.Path()).Restricted());
  for (const Finding& finding : check.findings) {
    if (finding.verdict == Verdict::Never) {
      console.Note(Utf8(L"never runs: " + finding.key + L": " + finding.text));
    }
  }
  if (!check.Runs() && !options.force) return Report(L"added", text, false, console);
  const bool added = Sends(KindOf(options).subscribe, text, Records::Decision::Stored,
                           options.caller, module, console);
  return Report(L"added", text, added, console);
}

struct RemoveOptions {
  std::string which;
  std::string caller = "vxhost";
};

const StoredSubscription* Find(const std::vector<StoredSubscription>& all,
                               const std::string& which) {
  const auto found = std::ranges::find_if(all, [&](const StoredSubscription& one) {
    return std::to_string(one.number) == which || (!which.empty() && Utf8(one.hash) == which);
  });
  if (found == all.end()) return nullptr;
  if (!found->text) {
    throw std::runtime_error(
        "the stored element is not an object, so no command removes it: vxhost store restore COPY");
  }
  return &*found;
}

int Remove(const RemoveOptions& options, const ModuleOptions& module, Console& console) {
  const auto before = SubscriptionsOf(LookAtStore(module.limits));
  const StoredSubscription* found = Find(before, options.which);
  if (found == nullptr) {
    console.Note("no stored subscription has the number or hash " + options.which);
    return Report(L"removed", {}, false, console);
  }
  const StoredSubscription& one = *found;
  if (one.kind->unsubscribe != 0) {
    const bool removed = Sends(one.kind->unsubscribe, *one.text, Records::Decision::Removed,
                               options.caller, module, console);
    return Report(L"removed", *one.text, removed, console);
  }
  {
    // No command removes a package subscription. A running service keeps it until logoff.
    const StoreHold hold(StoreUse::Write, module.limits);
    RequestManager(kServiceDocument, one.kind->list).RemoveRequest(*one.text);
  }
  console.Note("a running service may still carry it out, until the next logoff");
  const bool removed = SubscriptionsOf(LookAtStore(module.limits)).size() < before.size();
  return Report(L"removed", *one.text, removed, console);
}

constexpr char kListFooter[] =
    "Checks each on this machine, like explain --all. Reads the store without changing it, and\n"
    "lists all, where command 20 lists as many as fit into an answer.\n"
    "  vxhost subscriptions\n"
    "  vxhost subscriptions list --json";
constexpr char kAddFooter[] =
    "Checks the subscription first, and adds one that would never run only with --force.\n"
    "Exit code 1 when nothing was added.\n"
    "  vxhost subscriptions add --power 18 --run \"C:\\Program Files\\Maker\\Tool.exe\" --delay 5\n"
    "  vxhost subscriptions add --platform 1 --send Maker.App_abcdefgh12345 --app-service Sync";
constexpr char kRemoveFooter[] =
    "Finds the subscription in the store and sends the exact text that is stored there. Exit code "
    "1\n"
    "when nothing was removed.\n"
    "  vxhost subscriptions remove 3 --service";

constexpr unsigned kShared = Shared::Dll | Shared::Store | Shared::Timeout | Shared::Json;

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

std::vector<std::string> ExplainedLines(const Explanation& one) {
  std::vector<std::string> lines{LabelOf(one.subscription) + FateText(one) +
                                 (one.action.empty() ? "" : ": " + Utf8(one.action))};
  for (const auto& reason : one.reasons) lines.push_back("                because " + Utf8(reason));
  return lines;
}

// Explains whether a resume would launch the companion app.
int ExplainResume(Console& console) {
  using Tessel::Server::Storage::CapDataStore;
  using Tessel::Server::Storage::StoreState;
  // Reading through the module's store creates its folders, so use a private one if there is none.
  std::optional<PrivateStore> none;
  if (LookAtFile(CapDataStore::PathOfFile()).reading.state == StoreState::Missing) none.emplace();
  std::vector<std::string> lines;
  for (const auto& line : Explain(Qubo::QuboFacade().ExplainResume())) lines.push_back(Utf8(line));
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
    console.Show(row, ExplainedLines(one));
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

void AddSubscriptionCommands(CommandLine& line) {
  const auto [group, noOptions] =
      line.Add({"subscriptions", "list the stored subscriptions, or change them", kListFooter},
               &List, kShared);
  line.Add({"list", "list the stored subscriptions", kListFooter}, &List, kShared, &group);
  const auto [add, given] =
      line.Add({"add", "compose a subscription, check it and send it", kAddFooter}, &Add,
               kShared | Shared::Service, &group);
  add.add_option("--power", given.power, "at this power event");
  add.add_option("--platform", given.platform, "at this platform event");
  add.add_option("--uninstalling", given.uninstalling, "when this family starts to be uninstalled");
  add.add_option("--uninstalled", given.uninstalled, "when this family has been uninstalled");
  add.add_option("--run", given.run, "start this program, by its full path");
  add.add_option("--arguments", given.arguments, "with these arguments");
  add.add_option("--send", given.send, "send a message to the app of this family");
  add.add_option("--app-service", given.appService, "to this app service of that app");
  add.add_option("--payload", given.payload, "with this JSON object, or @FILE, instead of {}");
  add.add_option("--trigger", given.trigger, "raise the trigger with this GUID instead");
  add.add_option("--delay", given.delay, "after this many seconds");
  add.add_option("--caller", given.caller, "the client's identity, instead of vxhost");
  add.add_flag("--force", given.force, "even if it would never run");
  const auto [remove, removed] = line.Add({"remove", "remove a subscription", kRemoveFooter},
                                          &Remove, kShared | Shared::Service, &group);
  remove.add_option("which", removed.which, "its number, or its hash")->required();
  remove.add_option("--caller", removed.caller, "the client's identity")->capture_default_str();
}

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
