#include "companion/resume_decision.h"

#include <iterator>
#include <string_view>
#include <utility>

#include "json/decimal.h"

namespace Vx::Tessel::Server::Services::Orvane::Qubo {

namespace {

using State = RegistrationHelper::RegistrationState;

// Keeps the answers, so that an explanation shows what the decision used.
class Questioner {
 public:
  explicit Questioner(const ResumeSources& askedSources) : sources(askedSources) {}

  bool SoftwareIsMissing() {
    return IsMissing(sources.firstSoftware, ResumeQuestion::FirstPreloaded,
                     ResumeQuestion::FirstInstalled) ||
           IsMissing(sources.secondSoftware, ResumeQuestion::SecondPreloaded,
                     ResumeQuestion::SecondInstalled);
  }

  bool HasBeenInSMode() {
    return Keep(ResumeQuestion::HasBeenInSMode, sources.mode.HasBeenInSMode());
  }

  bool IsInSMode() { return Keep(ResumeQuestion::IsInSMode, sources.mode.IsInSMode()); }

  bool SoftwareUsed() {
    return Keep(ResumeQuestion::SoftwareUsed, sources.softwareUsed.ShouldBeSkipped());
  }

  bool RegistrationUsed() {
    return Keep(ResumeQuestion::RegistrationUsed, sources.registrationUsed.ShouldBeSkipped());
  }

  State Registration() {
    const State state = sources.registration.GetState();
    answers.push_back({ResumeQuestion::RegistrationState, static_cast<std::int32_t>(state)});
    return state;
  }

  ResumeDecision Settle(ResumeRule rule, QuboStartingPoint startingPoint) {
    return {startingPoint, rule, std::move(answers)};
  }

 private:
  bool IsMissing(const Base::SoftwareCheckBehavior& software, ResumeQuestion preloaded,
                 ResumeQuestion installed) {
    return Keep(preloaded, software.IsPreloaded()) && !Keep(installed, software.IsInstalled());
  }

  bool Keep(ResumeQuestion question, bool answer) {
    answers.push_back({question, answer ? 1 : 0});
    return answer;
  }

  const ResumeSources& sources;
  std::vector<ResumeAnswer> answers;
};

constexpr std::wstring_view kQuestionTexts[] = {
    L"first preloaded software: preloaded",
    L"first preloaded software: installed",
    L"second preloaded software: preloaded",
    L"second preloaded software: installed",
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

static_assert(std::size(kQuestionTexts) ==
              static_cast<std::size_t>(ResumeQuestion::RegistrationUsed) + 1);
static_assert(std::size(kRuleTexts) ==
              static_cast<std::size_t>(ResumeRule::RegistrationNotSkipped) + 1);

}  // namespace

ResumeDecision DecideResume(const ResumeSources& sources) {
  Questioner ask(sources);
  if (ask.SoftwareIsMissing() && ask.HasBeenInSMode() && !ask.SoftwareUsed()) {
    return ask.Settle(ResumeRule::Software, QuboStartingPoint::Software);
  }
  if (ask.Registration() != State::SkippedOobe) {
    return ask.Settle(ResumeRule::RegistrationNotSkipped, QuboStartingPoint::None);
  }
  if (!ask.HasBeenInSMode() && !ask.IsInSMode()) {
    return ask.Settle(ResumeRule::NotInSMode, QuboStartingPoint::None);
  }
  if (ask.RegistrationUsed()) {
    return ask.Settle(ResumeRule::RegistrationUsed, QuboStartingPoint::None);
  }
  return ask.Settle(ResumeRule::Registration, QuboStartingPoint::Registration);
}

std::vector<std::wstring> Explain(const ResumeDecision& decision) {
  std::vector<std::wstring> lines;
  for (const ResumeAnswer& answer : decision.answers) {
    std::wstring line(kQuestionTexts[static_cast<std::size_t>(answer.question)]);
    line += L": ";
    if (answer.question == ResumeQuestion::RegistrationState) {
      line += Json::WideDecimal(answer.answer);
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
