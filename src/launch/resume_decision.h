#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "launch/behaviors.h"

namespace Vx::Tessel::Server::Services::Orvane::Qubo {

// Why the companion app was started after a resume.
enum class QuboStartingPoint : std::int32_t {
  None = 0,
  Forced = 1,
  Registration = 2,
  Software = 3,
};

// The rule that settled a resume.
enum class ResumeRule {
  Forced,                 // the override is set
  Software,               // preloaded software is missing, and this reason is unused
  Registration,           // the owner skipped registration, and this reason is unused
  RegistrationUsed,       // as before, but this reason was used already
  NotInSMode,             // the owner skipped registration on a machine that never was in S mode
  RegistrationNotSkipped  // neither reason is there
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

// One question as it was asked; the answer is 0 or 1, or the number of the registration state.
struct ResumeAnswer {
  ResumeQuestion question;
  std::int32_t answer;
};

struct ResumeDecision {
  QuboStartingPoint startingPoint = QuboStartingPoint::None;
  ResumeRule rule = ResumeRule::RegistrationNotSkipped;
  std::vector<ResumeAnswer> answers;  // in the order of asking; what is not here was not asked
};

// Who answers the questions; borrowed for one decision.
struct ResumeSources {
  const Base::SoftwareCheckBehavior& firstSoftware;
  const Base::SoftwareCheckBehavior& secondSoftware;
  const Base::RegistrationCheckBehavior& registration;
  Base::ModeCheckBehavior& mode;
  const Base::ApplicationLaunchCriteriaDataAccess& softwareUsed;
  const Base::ApplicationLaunchCriteriaDataAccess& registrationUsed;
};

// Decides whether a resume starts the companion app. Missing software outranks registration; both
// count only on a machine that is or was in S mode, and each only until it was used. Asks no more
// than it needs, in a fixed order, and changes nothing.
ResumeDecision DecideResume(const ResumeSources& sources);

// The decision for a person: one line for each answer, then the rule and what follows from it.
std::vector<std::wstring> Explain(const ResumeDecision& decision);

}  // namespace Vx::Tessel::Server::Services::Orvane::Qubo
