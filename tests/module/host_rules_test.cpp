// Hosts that break the contract, or that make concurrently the calls that others make in sequence.

#include "hosting/loaded_module.h"
#include "support/test.h"
#include "support/winrt_fakes.h"

namespace Vx::Tests {
namespace {

class HostRulesTest : public RuntimeTest {
 protected:
  // The module frees strings through the Windows Runtime, so the fakes cannot count them.
  void ExpectNothingLeft() override {}

  RegisteredFakes fakes;
  PrivateStore store;
  Hosting::LoadedModule module{ModulePath()};
  Hosting::ServiceSession service = module.NewService();
};

TEST_F(HostRulesTest, CallsOfSlot8WaitForOneAnother) {
  opening.onRequest = true;
  bool first = false;
  bool second = false;
  {
    const std::jthread one([&] { first = service.Slots()->oobe_event_task(); });
    AwaitPending();
    const std::jthread other([&] { second = service.Slots()->oobe_event_task(); });
    for (int i = 0; i < 20 && openedServices.size() == 1; ++i) Sleep(10);
    EXPECT_EQ(openedServices.size(), 1U);
    CompletePendingOnes(1);
  }
  EXPECT_TRUE(first);
  EXPECT_TRUE(second);
  EXPECT_THAT(messages, ElementsAre(HasSubstr(L"oobe_completed")));
}

}  // namespace
}  // namespace Vx::Tests
