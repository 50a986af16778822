#include "vxhost/commands/commands.h"

#include <algorithm>
#include <initializer_list>
#include <optional>
#include <stdexcept>

#include "events/package_event.h"
#include "hosting/store_hold.h"
#include "hosting/text.h"
#include "json/json_object.h"
#include "json/json_text.h"
#include "records/record.h"
#include "storage/request_manager.h"
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

}  // namespace Vx::Hosting::Tool
