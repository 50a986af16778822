#include "vxhost/subscriptions/command_verdict.h"

#include "events/subscription_forms.h"
#include "hosting/text.h"
#include "records/record.h"

namespace Vx::Hosting::Tool {

using namespace Tessel::Server::Services::Orvane;
namespace Records = Tessel::Server::Records;

namespace {

using Records::Decision;
using Records::Outcome;
using Records::Reason;

// Ignores keywords that this version does not recognize.
Outcome OutcomeOf(const CommandResult& answer) {
  return {Records::FromWord<Decision>(answer.decision).value_or(Decision::None),
          Records::FromWord<Reason>(answer.reason).value_or(Reason::None)};
}

bool NeverRuns(const Outcome& outcome) {
  return outcome.decision == Decision::Stored && outcome.reason == Reason::Unreadable;
}

std::string DecisionText(std::uint32_t id, const Outcome& outcome) {
  if (outcome.decision == Decision::Stored) {
    return NeverRuns(outcome) ? "stored, but never runs" : "stored";
  }
  for (const SubscriptionForm* form : kSubscriptionForms) {
    if (!Records::IsFailure(outcome.decision)) break;
    if (form->subscribe == id) return "not stored";
    if (form->unsubscribe == id) return "not removed";
  }
  return Utf8(Records::NameOf(outcome.decision).text);
}

}  // namespace

bool WasDone(const CommandResult& answer) {
  const Outcome outcome = OutcomeOf(answer);
  return answer.code == 0 && !Records::IsFailure(outcome.decision) && !NeverRuns(outcome);
}

std::string VerdictOf(std::uint32_t id, const CommandResult& answer) {
  const Outcome outcome = OutcomeOf(answer);
  if (answer.code != 0 || outcome.decision == Decision::None) return {};
  if (outcome.reason == Reason::AlreadyStored) return "stored already";
  if (outcome.reason == Reason::NotStored) return "nothing removed";
  const std::string why = Utf8(Records::NameOf(outcome.reason).text);
  return DecisionText(id, outcome) + (why.empty() ? "" : ": " + why);
}

}  // namespace Vx::Hosting::Tool
