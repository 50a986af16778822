// What a host that breaks a rule of the contract, or that calls at once what others call one after
// the other, gets from the module as it ships.

#include <cstdint>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "hosting/loaded_module.h"
#include "support/probe.h"
#include "support/temp_folder.h"
#include "support/winrt_fakes.h"

#include <windows.h>

namespace Vx::Tests {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class HostRulesTest : public RuntimeTest {
 protected:
  // The module has the Windows Runtime itself delete the strings of the fakes.
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
    const std::jthread one([&] { first = service.Slots().oobe_event_task(); });
    AwaitPending();
    const std::jthread other([&] { second = service.Slots().oobe_event_task(); });
    for (int i = 0; i < 20 && openedServices.size() == 1; ++i) Sleep(10);
    EXPECT_EQ(openedServices.size(), 1U);
    CompletePendingOnes(1);
  }
  EXPECT_TRUE(first);
  EXPECT_TRUE(second);
  EXPECT_THAT(messages, ElementsAre(HasSubstr(L"oobe_completed")));
}

TEST_F(HostRulesTest, SeveralObjectsShareTheStore) {
  constexpr wchar_t kPower[] =
      LR"({"powerEventType":7,"eventAction":1,"commandParams":{"path":"C:\\a.exe"}})";
  Hosting::ServiceSession other = module.NewService();
  EXPECT_EQ(service.Execute(9, kPower, L"client").code, 0U);
  EXPECT_THAT(other.Execute(20, L"{}", L"client").text.value_or(L""), HasSubstr(L"a.exe"));
}

}  // namespace
}  // namespace Vx::Tests
