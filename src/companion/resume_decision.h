#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "companion/behaviors.h"

namespace Vx::Tessel::Server::Services::Orvane::Qubo {

// Why a resume started the companion app.
enum class QuboStartingPoint : std::int32_t {
  None = 0,
  Forced = 1,
  Registration = 2,
  Software = 3,
};

// The rule that decided a resume.
enum class ResumeRule {
  Forced,                 // the override is set
  Software,               // preloaded software is missing, and this reason is unused
  Registration,           // the owner skipped registration, and this reason is unused
  RegistrationUsed,       // the owner skipped registration, but this reason was used before
  NotInSMode,             // the owner skipped registration on a machine that was never in S mode
  RegistrationNotSkipped  // neither reason applies
};

enum class ResumeQuestion {
  FirstPreloaded,
  FirstInstalled,
  SecondPreloaded,
  SecondInstalled,
  HasBeenInSMode,
  SoftwareUsed,
  RegistrationState,
  IsInSMode,
  RegistrationUsed,
};

// A question that the decision asked. The answer is 0 or 1, or the number of a registration state.
struct ResumeAnswer {
  ResumeQuestion question;
  std::int32_t answer;
};

struct ResumeDecision {
  QuboStartingPoint startingPoint = QuboStartingPoint::None;
  ResumeRule rule = ResumeRule::RegistrationNotSkipped;
  std::vector<ResumeAnswer> answers;  // in the order asked
};

// The objects that answer the questions. Borrowed for one decision.
struct ResumeSources {
  const Base::SoftwareCheckBehavior& firstSoftware;
  const Base::SoftwareCheckBehavior& secondSoftware;
  const Base::RegistrationCheckBehavior& registration;
  Base::ModeCheckBehavior& mode;
  const Base::ApplicationLaunchCriteriaDataAccess& softwareUsed;
  const Base::ApplicationLaunchCriteriaDataAccess& registrationUsed;
};

// Decides whether a resume starts the companion app. Missing software takes precedence over a
// skipped registration. Each is a reason only once, on a machine that is or was in S mode. Asks
// only the questions it needs, in a fixed order, and changes nothing.
ResumeDecision DecideResume(const ResumeSources& sources);

// Returns the decision as text: one line per answer, then the rule and the starting point.
std::vector<std::wstring> Explain(const ResumeDecision& decision);

}  // namespace Vx::Tessel::Server::Services::Orvane::Qubo
