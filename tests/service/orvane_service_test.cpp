#include "service/orvane_service.h"

#include <chrono>
#include <string>

#include <gmock/gmock.h>

#include "platform/machine.h"
#include "platform/system_services.h"
#include "service/service_fixture.h"
#include "simulator/virtual_clock.h"
#include "support/fake_console.h"

namespace Vx::Tests {
namespace {

using namespace std::chrono_literals;  // NOLINT(google-build-using-namespace)
using testing::Contains;
using testing::ElementsAre;

const std::wstring kNotCompleted = L"info|OrvaneService: OOBE not completed: ";
const std::wstring kCompleted = L"info|OrvaneService: Verified that OOBE completed.";
const std::wstring kTerminated =
    L"info|Vx::Tessel::Server::Services::Orvane::OrvaneService::startup_task: terminated (OOBE "
    L"Completed test)";

class FakeOobe : public Platform::Oobe {
 public:
  State Query() const override { return state; }
  State state;
};

class FaultyThreads : public Platform::Threads {
 public:
  Platform::Result<Platform::UniqueHandle> Start(std::function<void()> body) override {
    if (refuse) return Platform::Result<Platform::UniqueHandle>::Failure(11);
    return Platform::WindowsMachine().threads->Start(std::move(body));
  }
  bool refuse = false;
};

class OrvaneServiceTest : public testing::Test {
 protected:
  OrvaneServiceTest() { console.session = 0xFFFFFFFF; }  // nobody is signed in
  ~OrvaneServiceTest() override {
    host.End();
    clock.Settle();
  }

  Simulator::VirtualClock clock;
  FakeOobe oobe;
  FaultyThreads threads;
  FakeConsole console;
  Platform::MachineScope scope{[this](Platform::Machine& machine) {
    console.Install(machine);
    machine.clock = &clock;
    machine.oobe = &oobe;
    machine.threads = &threads;
  }};
  ServiceFixture host;
};

TEST_F(OrvaneServiceTest, WaitsForTheEndOfOobeAndSaysSoOnceAMinute) {
  oobe.state = {.known = true, .complete = false};
  host.service->Start();
  clock.Advance(60s);
  oobe.state = {.known = false, .complete = true};  // a failed query proves nothing
  clock.Advance(119s);
  EXPECT_THAT(host.log.Lines(),
              ElementsAre(kNotCompleted + L"0", kNotCompleted + L"0", kNotCompleted + L"1"));
  oobe.state = {.known = true, .complete = true};
  clock.Advance(1s);
  EXPECT_TRUE(host.log.Has(kCompleted));
}

TEST_F(OrvaneServiceTest, EndsTheWaitForOobeWithTheService) {
  host.service->Start();
  clock.Advance(3s);
  host.End();
  clock.Settle();
  EXPECT_EQ(clock.Workers(), 0U);
  EXPECT_TRUE(host.log.Has(kTerminated));
  EXPECT_THAT(host.log.Lines(), Contains(kNotCompleted + L"0").Times(1));
}

TEST_F(OrvaneServiceTest, AThreadThatCannotBeMadeIsLoggedAndCommandsStillWork) {
  threads.refuse = true;
  host.service->Start();
  EXPECT_THAT(host.log.Lines(), Contains(testing::HasSubstr(L"OrvaneService.Start threw")));
  EXPECT_EQ(host.Execute(22, L"{}").result, 0U);
}

}  // namespace
}  // namespace Vx::Tests
