#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/machine.h"
#include "simulator/simulated_machine.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"

namespace Vx::Tests {

// A simulated machine with ann at its console replaces the real one, and the log is recorded.
class MachineTest : public testing::Test {
 protected:
  MachineTest() { machine.users.LogOn(L"ann"); }

  // What the app services were sent, each as "family/service text".
  std::vector<std::wstring> Sent() const {
    std::vector<std::wstring> sent;
    for (const auto& message : machine.appServices.Messages()) {
      sent.push_back(message.packageFamilyName + L"/" + message.appServiceName + L" " +
                     message.text);
    }
    return sent;
  }

  Simulator::SimulatedMachine machine;
  Platform::MachineScope scope{[this](Platform::Machine& platform) { machine.Install(platform); }};
  LogCapture log;
};

// The same with a store of its own.
class StoreTest : public MachineTest {
 protected:
  PrivateStore store;
};

}  // namespace Vx::Tests
