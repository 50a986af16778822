#include "launch/resume_decision.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "launch/resume_world.h"

namespace Vx::Tessel::Server::Services::Orvane::Qubo {
namespace {

using World = Tests::ResumeWorld;
using State = World::State;
using ::testing::ElementsAre;

ResumeDecision Decide(const World& world) {
  const Tests::WorldSoftware first(world.firstPreloaded, world.firstInstalled);
  const Tests::WorldSoftware second(world.secondPreloaded, world.secondInstalled);
  Tests::WorldBehavior behavior(world);
  const Tests::WorldMark softwareUsed(world, "qubo_autolaunch_software_happened");
  const Tests::WorldMark registrationUsed(world, "qubo_autolaunch_registration_happened");
  return DecideResume({first, second, behavior, behavior, softwareUsed, registrationUsed});
}

// The rule as one would say it, without an order of asking: missing software counts on a machine
// that left S mode, skipped registration on one that is or was in it, each once, software first.
QuboStartingPoint Expected(const World& world) {
  const bool missing = (world.firstPreloaded && !world.firstInstalled) ||
                       (world.secondPreloaded && !world.secondInstalled);
  const bool software = missing && world.wasInSMode && !world.softwareUsed;
  const bool registration = world.registration == State::SkippedOobe &&
                            (world.wasInSMode || world.isInSMode) && !world.registrationUsed;
  if (software) return QuboStartingPoint::Software;
  return registration ? QuboStartingPoint::Registration : QuboStartingPoint::None;
}

TEST(ResumeDecisionTest, IsTheRuleInEveryWorld) {
  for (unsigned bits = 0; bits < 256; ++bits) {
    for (const State state :
         {State::Yes, State::No, State::SkippedOobe, State::Pending, State::Unknown}) {
      const auto bit = [bits](unsigned n) { return (bits >> n & 1U) != 0; };
      const World world{bit(0), bit(1), bit(2), bit(3), bit(4), bit(5), bit(6), bit(7), state};
      const ResumeDecision decision = Decide(world);
      ASSERT_EQ(decision.startingPoint, Expected(world)) << "bits " << bits;
      ASSERT_TRUE(world.done.empty()) << "a decision did something";
    }
  }
}

// What need not be asked must not be, because asking costs: a trust check, a package query, the
// store.
TEST(ResumeDecisionTest, NamesTheRuleThatSettledItAndAsksNoMoreThanThat) {
  using Q = ResumeQuestion;
  const struct {
    ResumeRule rule;
    World world;
    std::vector<Q> asked;
  } cases[] = {
      {ResumeRule::RegistrationNotSkipped,
       {},
       {Q::FirstPreloaded, Q::SecondPreloaded, Q::RegistrationState}},
      {ResumeRule::Software,
       {.firstPreloaded = true, .wasInSMode = true},
       {Q::FirstPreloaded, Q::FirstInstalled, Q::HasBeenInSMode, Q::SoftwareUsed}},
      {ResumeRule::NotInSMode,
       {.secondPreloaded = true, .registration = State::SkippedOobe},
       {Q::FirstPreloaded, Q::SecondPreloaded, Q::SecondInstalled, Q::HasBeenInSMode,
        Q::RegistrationState, Q::HasBeenInSMode, Q::IsInSMode}},
      {ResumeRule::Registration,
       {.wasInSMode = true, .registration = State::SkippedOobe},
       {Q::FirstPreloaded, Q::SecondPreloaded, Q::RegistrationState, Q::HasBeenInSMode,
        Q::RegistrationUsed}},
      {ResumeRule::RegistrationUsed,
       {.isInSMode = true, .registrationUsed = true, .registration = State::SkippedOobe},
       {Q::FirstPreloaded, Q::SecondPreloaded, Q::RegistrationState, Q::HasBeenInSMode,
        Q::IsInSMode, Q::RegistrationUsed}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.rule));
    const ResumeDecision decision = Decide(c.world);
    EXPECT_EQ(decision.rule, c.rule);
    std::vector<Q> asked;
    for (const ResumeAnswer& answer : decision.answers) asked.push_back(answer.question);
    EXPECT_EQ(asked, c.asked);
  }
}

TEST(ResumeDecisionTest, ExplainsEachAnswerAndTheRule) {
  const World world{.firstPreloaded = true,
                    .firstInstalled = true,
                    .secondPreloaded = true,
                    .isInSMode = true,
                    .registration = State::SkippedOobe};
  EXPECT_THAT(
      Explain(Decide(world)),
      ElementsAre(
          L"first preloaded software: preloaded: yes", L"first preloaded software: installed: yes",
          L"second preloaded software: preloaded: yes", L"second preloaded software: installed: no",
          L"Windows was in S mode at the first start and is not now: no", L"registration state: 2",
          L"Windows was in S mode at the first start and is not now: no",
          L"Windows is in S mode now: yes", L"launch because of registration was made before: no",
          L"the owner skipped registration on a machine that is or was in S mode: one "
          L"launch",
          L"starting point: 2"));
}

TEST(RegistrationStateTest, OnlyTheWholeTextMapsToAState) {
  static constexpr struct {
    std::string_view text;
    State state;
  } kCases[] = {
      {"yes", State::Yes},
      {"no", State::No},
      {"skipped_uwp", State::No},
      {"skipped_oobe", State::SkippedOobe},
      {"pending_oobe", State::Pending},
      {"pending_uwp", State::Pending},
      {"not_set", State::Unknown},
      {"", State::Unknown},
      {"Skipped_OOBE", State::Unknown},
      {"skipped_oobe ", State::Unknown},
      {std::string_view("yes\0", 4), State::Unknown},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(RegistrationHelper::MapValueToState(c.text), c.state);
  }
}

}  // namespace
}  // namespace Vx::Tessel::Server::Services::Orvane::Qubo
