#pragma once

#include "platform/kernel_objects.h"
#include "simulator/simulated_machine.h"
#include "support/test.h"

namespace Vx::Tests {

// Simulates a machine with ann signed in at the console, and captures the log.
class MachineTest : public testing::Test {
 protected:
  MachineTest() { machine.users.LogOn(L"ann"); }

  // The messages sent to app services, each as "family/service text".
  std::vector<std::wstring> Sent() const {
    std::vector<std::wstring> sent;
    for (const auto& message : machine.appServices.Messages()) {
      sent.push_back(message.packageFamilyName + L"/" + message.appServiceName + L" " +
                     message.text);
    }
    return sent;
  }

  static Platform::SharedHandle MakeStopEvent() {
    return *Platform::CurrentMachine().kernelObjects->MakeManualEvent({});
  }

  Simulator::SimulatedMachine machine;
  Platform::MachineScope scope{[this](Platform::Machine& platform) { machine.Install(platform); }};
  LogCapture log;
};

class StoreTest : public MachineTest {
 protected:
  PrivateStore store;
};

}  // namespace Vx::Tests
