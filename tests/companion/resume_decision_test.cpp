#include "companion/resume_decision.h"

#include "companion/behaviors.h"
#include "support/test.h"

namespace Vx::Tessel::Server::Services::Orvane::Qubo {
namespace {

using State = RegistrationHelper::RegistrationState;

struct World final : Base::RegistrationCheckBehavior, Base::ModeCheckBehavior {
  struct Software final : Base::SoftwareCheckBehavior {
    bool IsWin32Installed() const override { return installed; }
    bool IsUwpInstalled() const override { return installed; }
    bool IsInstalled() const override { return installed; }
    bool IsPreloaded() const override { return preloaded; }
    bool preloaded = false;
    bool installed = false;
  };
  struct Mark final : Base::ApplicationLaunchCriteriaDataAccess {
    bool SaveSkipState(bool) const override {
      ADD_FAILURE() << "the decision had a side effect";
      return true;
    }
    bool ShouldBeSkipped() const override { return used; }
    bool used = false;
  };

  // Bits from 0: first software preloaded, first installed, second preloaded, second installed, was
  // in S mode, is in S mode, software used, registration used.
  World(unsigned bits, State state) : registration(state) {
    const auto bit = [bits](unsigned n) { return (bits >> n & 1U) != 0; };
    first.preloaded = bit(0);
    first.installed = bit(1);
    second.preloaded = bit(2);
    second.installed = bit(3);
    wasInSMode = bit(4);
    isInSMode = bit(5);
    softwareUsed.used = bit(6);
    registrationUsed.used = bit(7);
  }

  State GetState() const override { return registration; }
  bool HasBeenInSMode() override { return wasInSMode; }
  bool IsInSMode() const override { return isInSMode; }
  ResumeDecision Decide() {
    return DecideResume({first, second, *this, *this, softwareUsed, registrationUsed});
  }

  Software first;
  Software second;
  bool wasInSMode = false;
  bool isInSMode = false;
  Mark softwareUsed;
  Mark registrationUsed;
  State registration;
};

// The rule itself, regardless of the order of the questions: missing software on a machine that
// left S mode, then skipped registration on a machine that is or was in S mode. Each launches once.
QuboStartingPoint Expected(const World& world) {
  const bool missing = (world.first.preloaded && !world.first.installed) ||
                       (world.second.preloaded && !world.second.installed);
  const bool software = missing && world.wasInSMode && !world.softwareUsed.used;
  const bool registration = world.registration == State::SkippedOobe &&
                            (world.wasInSMode || world.isInSMode) && !world.registrationUsed.used;
  if (software) return QuboStartingPoint::Software;
  return registration ? QuboStartingPoint::Registration : QuboStartingPoint::None;
}

TEST(ResumeDecisionTest, IsTheRuleInEveryWorld) {
  for (unsigned bits = 0; bits < 256; ++bits) {
    for (const State state :
         {State::Yes, State::No, State::SkippedOobe, State::Pending, State::Unknown}) {
      World world(bits, state);
      ASSERT_EQ(world.Decide().startingPoint, Expected(world)) << "bits " << bits;
    }
  }
}

// Answering a question costs a trust check, a package query or a store read.
TEST(ResumeDecisionTest, NamesTheRuleThatSettledItAndAsksNoMoreThanThat) {
  constexpr State kSkipped = State::SkippedOobe;
  static constexpr struct {
    ResumeRule rule;
    unsigned bits;
    State state;
    std::string_view asked;  // question numbers
  } cases[] = {
      {ResumeRule::RegistrationNotSkipped, 0, State::Yes, "026"},
      {ResumeRule::Software, 0x11, State::Yes, "0145"},
      {ResumeRule::NotInSMode, 0x04, kSkipped, "0234647"},
      {ResumeRule::Registration, 0x10, kSkipped, "02648"},
      {ResumeRule::RegistrationUsed, 0xA0, kSkipped, "026478"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.rule));
    const ResumeDecision decision = World(c.bits, c.state).Decide();
    EXPECT_EQ(decision.rule, c.rule);
    std::string asked;
    for (const ResumeAnswer& answer : decision.answers) {
      asked += static_cast<char>('0' + static_cast<int>(answer.question));
    }
    EXPECT_EQ(asked, c.asked);
  }
}

TEST(ResumeDecisionTest, ExplainsEachAnswerAndTheRule) {
  EXPECT_THAT(
      Explain(World(0x27, State::SkippedOobe).Decide()),
      ElementsAre(L"Sentra was preloaded: yes", L"Sentra is installed: yes",
                  L"McAfee was preloaded: yes", L"McAfee is installed: no",
                  L"Windows was in S mode at the first start and is not now: no",
                  L"registration state: skipped during first-run set-up",
                  L"Windows was in S mode at the first start and is not now: no",
                  L"Windows is in S mode now: yes",
                  L"launch because of registration was made before: no",
                  L"the owner skipped registration on a machine that is or was in S mode: one "
                  L"launch",
                  L"starting point: 2"));
}

}  // namespace
}  // namespace Vx::Tessel::Server::Services::Orvane::Qubo
