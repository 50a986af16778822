#include "companion/resume_decision.h"

#include <iterator>
#include <string_view>
#include <utility>

#include "json/decimal.h"

namespace Vx::Tessel::Server::Services::Orvane::Qubo {

namespace {

using State = RegistrationHelper::RegistrationState;

constexpr std::wstring_view kQuestionTexts[] = {
    L"Sentra was preloaded",
    L"Sentra is installed",
    L"McAfee was preloaded",
    L"McAfee is installed",
    L"Windows was in S mode at the first start and is not now",
    L"launch because of software was made before",
    L"registration state",
    L"Windows is in S mode now",
    L"launch because of registration was made before",
};

constexpr std::wstring_view kRuleTexts[] = {
    L"the forced launch is set in the registry: the app is launched at every resume",
    L"preloaded software is missing on a machine that left S mode: one launch",
    L"the owner skipped registration on a machine that is or was in S mode: one launch",
    L"the owner skipped registration, but that launch was made before: no launch",
    L"the owner skipped registration, but the machine is not and was not in S mode: no launch",
    L"software gives no reason and the owner did not skip registration: no launch",
};

std::wstring StateText(std::int32_t state) {
  switch (static_cast<State>(state)) {
    case State::Yes:
      return L"registered";
    case State::No:
      return L"not registered";
    case State::SkippedOobe:
      return L"skipped during first-run set-up";
    case State::Pending:
      return L"pending";
    case State::Unknown:
      break;
  }
  return L"unknown";
}

static_assert(std::size(kQuestionTexts) ==
              static_cast<std::size_t>(ResumeQuestion::RegistrationUsed) + 1);
static_assert(std::size(kRuleTexts) ==
              static_cast<std::size_t>(ResumeRule::RegistrationNotSkipped) + 1);

}  // namespace

ResumeDecision DecideResume(const ResumeSources& sources) {
  using Question = ResumeQuestion;
  // Keeps the answers, so that an explanation shows what the decision was based on.
  ResumeDecision decision;
  const auto keep = [&decision](Question question, bool answer) {
    decision.answers.push_back({question, answer ? 1 : 0});
    return answer;
  };
  const auto isMissing = [&keep](const Base::SoftwareCheckBehavior& software, Question preloaded,
                                 Question installed) {
    return keep(preloaded, software.IsPreloaded()) && !keep(installed, software.IsInstalled());
  };
  const auto hasBeenInSMode = [&] {
    return keep(Question::HasBeenInSMode, sources.mode.HasBeenInSMode());
  };
  const auto settle = [&decision](ResumeRule rule, QuboStartingPoint startingPoint) {
    decision.rule = rule;
    decision.startingPoint = startingPoint;
    return std::move(decision);
  };

  if ((isMissing(sources.firstSoftware, Question::FirstPreloaded, Question::FirstInstalled) ||
       isMissing(sources.secondSoftware, Question::SecondPreloaded, Question::SecondInstalled)) &&
      hasBeenInSMode() && !keep(Question::SoftwareUsed, sources.softwareUsed.ShouldBeSkipped())) {
    return settle(ResumeRule::Software, QuboStartingPoint::Software);
  }
  const State state = sources.registration.GetState();
  decision.answers.push_back({Question::RegistrationState, static_cast<std::int32_t>(state)});
  if (state != State::SkippedOobe) {
    return settle(ResumeRule::RegistrationNotSkipped, QuboStartingPoint::None);
  }
  if (!hasBeenInSMode() && !keep(Question::IsInSMode, sources.mode.IsInSMode())) {
    return settle(ResumeRule::NotInSMode, QuboStartingPoint::None);
  }
  if (keep(Question::RegistrationUsed, sources.registrationUsed.ShouldBeSkipped())) {
    return settle(ResumeRule::RegistrationUsed, QuboStartingPoint::None);
  }
  return settle(ResumeRule::Registration, QuboStartingPoint::Registration);
}

std::vector<std::wstring> Explain(const ResumeDecision& decision) {
  std::vector<std::wstring> lines;
  for (const ResumeAnswer& answer : decision.answers) {
    std::wstring line(kQuestionTexts[static_cast<std::size_t>(answer.question)]);
    line += L": ";
    if (answer.question == ResumeQuestion::RegistrationState) {
      line += StateText(answer.answer);
    } else {
      line += answer.answer != 0 ? L"yes" : L"no";
    }
    lines.push_back(std::move(line));
  }
  lines.emplace_back(kRuleTexts[static_cast<std::size_t>(decision.rule)]);
  lines.push_back(L"starting point: " +
                  Json::WideDecimal(static_cast<std::int32_t>(decision.startingPoint)));
  return lines;
}

}  // namespace Vx::Tessel::Server::Services::Orvane::Qubo
