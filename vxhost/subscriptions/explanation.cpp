#include "vxhost/subscriptions/explanation.h"

#include <exception>
#include <utility>

#include "events/delivery_rules.h"
#include "events/event_commands.h"
#include "events/package_event.h"
#include "events/subscription_delivery.h"
#include "hosting/text.h"
#include "json/json_object.h"
#include "launch/launcher.h"
#include "platform/machine.h"
#include "platform/sessions.h"
#include "platform/system_services.h"
#include "platform/windows_runtime_error.h"
#include "records/record.h"
#include "security/trusted_program.h"
#include "vxhost/subscriptions/subscription_check.h"

namespace Vx::Hosting::Tool {

namespace {

using namespace Tessel::Server::Services::Orvane;
namespace Records = Tessel::Server::Records;
using Records::Decision;
using Records::Outcome;
using Records::Reason;

constexpr std::wstring_view kDelayKey = L"delayDeliverySec";
constexpr std::wstring_view kPathKey = L".path";
constexpr wchar_t kUnreadable[] = L"the module cannot read it: ";
constexpr wchar_t kNoTriggers[] = L"this Windows has no custom triggers";

struct Words {
  const wchar_t* name = nullptr;
  const char* text = nullptr;
  const char* later = nullptr;  // after a wait
};
// In the order of the enumeration.
constexpr Words kFates[] = {{L"run", "would run", "run"},
                            {L"dropped", "would be dropped"},
                            {L"refused", "would be refused", "be refused"},
                            {L"never", "never runs"},
                            {L"other event", "not concerned"}};

class Explainer {
 public:
  Explainer(const StoredSubscription& stored, const Occasion& asked,
            Tessel::Security::KeySet restricted)
      : kind(*stored.kind), occasion(asked), keys(restricted) {
    result.subscription = stored;
  }

  Explanation Run() {
    if (!result.subscription.text) {
      Because(Fate::Never, L"the stored element is not an object");
      return result;
    }
    try {
      if (kind.family != nullptr) {
        ExplainPackage();
      } else {
        ExplainTimed();
      }
    } catch (const Platform::WindowsRuntimeError& error) {
      Because(Fate::Never, kUnreadable + error.message());
    } catch (const std::exception& error) {
      Because(Fate::Never, kUnreadable + Wide(error.what()));
    }
    return result;
  }

 private:
  const std::wstring& Text() const { return *result.subscription.text; }

  void Because(Fate fate, std::wstring reason) {
    result.fate = fate;
    result.reasons.push_back(std::move(reason));
  }

  bool IsAnotherEvent(bool same) {
    if (occasion.kind == nullptr || (occasion.kind == &kind && same)) return false;
    Because(Fate::OtherEvent, L"it is for " + result.event);
    return true;
  }

  void ExplainTimed() {
    const EventSubscription subscription(Text(), kind);
    result.event = Wide(kind.name) + L" " + std::to_wstring(subscription.Type());
    if (IsAnotherEvent(subscription.Type() == occasion.code)) return;
    EventCommand& command = *subscription.Command();
    result.delay = command.DelayDeliverySec();
    const int delay = LeadingInteger(result.delay).value_or(0);
    if (delay < 1 ? IsOverdue(delay, 0) : IsTooLong(delay)) {
      Because(Fate::Dropped, NameOf(Reason::ImpossibleDelay).text);
      return;
    }
    result.wait = delay;
    CheckCommand(command);
  }

  void ExplainPackage() {
    const auto family = Json::JsonObject::Parse(Text()).GetNamedString(kind.family);
    result.event = L"uninstall " + family;
    if (IsAnotherEvent(family == occasion.family)) return;
    try {
      const SubscribeForAppPackageEventRequest request(Text());
      if (!Platform::CurrentMachine().apiSets->IsPresent(Platform::kSessionApiSet)) {
        Because(Fate::Never, NameOf(Reason::NoSessionApi).text);
        return;
      }
      CheckCommand(*request.PackageEvent()->Command());
    } catch (const Platform::WindowsRuntimeError& error) {
      if (error.code() != kPackageNotInstalled) throw;
      const bool late = SubscribeForAppPackageEventRequest::ParseEventCommand(Text()) != nullptr;
      Because(Fate::Never,
              std::wstring(L"no package of the family is installed: the next start or logon ") +
                  (late ? L"runs it late and completes it" : L"completes it without a message"));
    }
  }

  void CheckCommand(EventCommand& command) {
    if (const auto* launch = dynamic_cast<LaunchCommand*>(&command)) {
      result.action = L"start " + launch->Path();
      if (!launch->Arguments().empty()) result.action += L" " + launch->Arguments();
      CheckLaunch(*launch);
    } else {
      // Only power and platform deliveries raise triggers.
      const std::wstring trigger = command.CustomTriggerGUID();
      const bool raises = !trigger.empty() && kind.family == nullptr;
      result.action =
          raises ? L"raise the trigger " + trigger : L"send a message to " + command.Target();
      TakeFaults(Fate::Never, {});
      if (raises && !Platform::CurrentMachine().systemTriggers->ArePresent()) {
        Because(Fate::Never, kNoTriggers);
      }
    }
    if (result.reasons.empty()) result.fate = Fate::Runs;
  }

  void CheckLaunch(const LaunchCommand& launch) {
    // The module's check decides. The findings explain why.
    Reason why = Tessel::Security::TrustedProgram::Check(launch.Path(), keys).reason;
    const bool trusted = why == Reason::None;
    TakeFaults(Fate::Refused, trusted ? kPathKey : std::wstring_view());
    if (!trusted && !result.reasons.empty()) return;
    if (trusted) why = WhyNoLaunchIn(Platform::CurrentMachine().sessions->ActiveConsoleSession());
    if (why != Reason::None) Because(Fate::Refused, NameOf(why).text);
  }

  // Adds the subscription's faults, except those of the member `passed` and of the delay, which was
  // checked earlier.
  void TakeFaults(Fate fate, std::wstring_view passed) {
    const auto check = CheckSubscription(Text(), keys);
    for (const Finding& finding : check.findings) {
      if (finding.verdict != Verdict::Never || finding.key.ends_with(kDelayKey)) continue;
      if (!passed.empty() && finding.key.ends_with(passed)) continue;
      std::wstring text = finding.key.empty() ? finding.text : finding.key + L": " + finding.text;
      if (!finding.found.empty()) text += L"; found " + finding.found;
      Because(fate, std::move(text));
    }
  }

  const SubscriptionForm& kind;
  const Occasion& occasion;
  const Tessel::Security::KeySet keys;
  Explanation result;
};

// Ignores keywords that this version does not recognize.
Outcome OutcomeOf(const CommandResult& answer) {
  return {Records::FromWord<Decision>(answer.decision).value_or(Decision::None),
          Records::FromWord<Reason>(answer.reason).value_or(Reason::None)};
}

bool NeverRuns(const Outcome& outcome) {
  return outcome.decision == Decision::Stored && outcome.reason == Reason::Unreadable;
}

std::string DecisionText(std::uint32_t id, const Outcome& outcome) {
  if (NeverRuns(outcome)) return "stored, but never runs";
  if (outcome.decision == Decision::Stored) return "stored";
  for (const SubscriptionForm* form : kSubscriptionForms) {
    if (!Records::IsFailure(outcome.decision)) break;
    if (form->subscribe == id) return "not stored";
    if (form->unsubscribe == id) return "not removed";
  }
  return Utf8(NameOf(outcome.decision).text);
}

}  // namespace

std::string FateText(const Explanation& one) {
  const Words& words = kFates[static_cast<std::size_t>(one.fate)];
  if (one.wait == 0 || words.later == nullptr) return words.text;
  return "would wait " + std::to_string(one.wait) + " s and " + words.later;
}

std::vector<Explanation> Explain(const std::vector<StoredSubscription>& subscriptions,
                                 const Occasion& occasion, Tessel::Security::KeySet keys) {
  std::vector<Explanation> all;
  all.reserve(subscriptions.size());
  for (const auto& one : subscriptions) all.push_back(Explainer(one, occasion, keys).Run());
  return all;
}

std::string LabelOf(const StoredSubscription& one) {
  const std::string number = std::to_string(one.number);
  return std::string(number.size() < 4 ? 4 - number.size() : 0, ' ') + number + "  " +
         Cell(one.hash.empty() ? "--------" : Utf8(one.hash), 10);
}

JsonRow RowOf(const Explanation& one) {
  return {{L"number", one.subscription.number},
          {L"hash", one.subscription.hash},
          {L"kind", Wide(one.subscription.kind->name)},
          {L"event", one.event},
          {L"verdict", kFates[static_cast<std::size_t>(one.fate)].name},
          {L"action", one.action},
          {L"reasons", one.reasons}};
}

bool WasDone(const CommandResult& answer) {
  const Outcome outcome = OutcomeOf(answer);
  return answer.code == 0 && !Records::IsFailure(outcome.decision) && !NeverRuns(outcome);
}

std::string VerdictOf(std::uint32_t id, const CommandResult& answer) {
  const Outcome outcome = OutcomeOf(answer);
  if (answer.code != 0 || outcome.decision == Decision::None) return {};
  if (outcome.reason == Reason::AlreadyStored) return "stored already";
  if (outcome.reason == Reason::NotStored) return "nothing removed";
  const std::string why = Utf8(NameOf(outcome.reason).text);
  return DecisionText(id, outcome) + (why.empty() ? "" : ": " + why);
}

}  // namespace Vx::Hosting::Tool
