#include "host/app_service_proxy.h"

#include "simulator/fault_injection.h"
#include "support/test.h"
#include "support/winrt_fakes.h"

namespace Vx::Tessel::Server::TesselCommunication {
namespace {

class AppServiceProxyTest : public Tests::RuntimeTest {
 protected:
  int Send() {
    return AppServiceProxySDK(L"Some.App_0123", L"Some.Service").send_message(L"x").first;
  }

  Simulator::FaultInjection faults;
  Platform::MachineScope scope{[this](Platform::Machine& machine) { faults.Install(machine); }};
  Tests::LogCapture log;
};

TEST_F(AppServiceProxyTest, SendsAsTheConsoleUserWhereThatIsPossible) {
  static constexpr std::pair<const char*, bool> kCases[] = {
      {"", true},
      {"Sessions.ActiveConsoleSession", false},
      {"Sessions.QueryUserToken", false},
      {"Sessions.Impersonate", false},
  };
  for (const auto& [refused, asUser] : kCases) {
    SCOPED_TRACE(refused);
    faults.FailNamed(refused);
    messages.clear();
    EXPECT_EQ(Send(), 0);
    EXPECT_THAT(messages, ElementsAre(L"x"));
    EXPECT_EQ(openedAsAnother, asUser);
    EXPECT_FALSE(Tests::ThreadActsAsAnother());
    EXPECT_THAT(log.Lines(), IsEmpty());
  }
}

TEST_F(AppServiceProxyTest, LeavesOneWarningForAMessageThatDoesNotArrive) {
  const std::wstring line =
      L"warning|AppServiceProxySDK - no message to app service Some.Service of Some.App_0123, sent "
      L"as ";
  connectionStatus = 2;
  EXPECT_EQ(Send(), 2);
  faults.FailNamed("Sessions.QueryUserToken");
  opening = {.status = Abi::AsyncStatus::Error, .error = E_ACCESSDENIED};
  EXPECT_EQ(Send(), E_ACCESSDENIED);
  EXPECT_THAT(log.Lines(), ElementsAre(line + L"the console user: status 0x2",
                                       line + L"the service: status 0x80070005"));
}

}  // namespace
}  // namespace Vx::Tessel::Server::TesselCommunication
