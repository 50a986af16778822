// Deliveries that wait out a delay: how many, and until when.

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <utility>

#include "events/power_events.h"
#include "events/zephra_events.h"
#include "platform/kernel_objects.h"
#include "support/machine_test.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using namespace std::chrono_literals;
using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::SizeIs;

std::wstring Delayed(const std::wstring& delay, const std::wstring& service = L"s") {
  return LR"({"powerEventType":7,"eventAction":2,"commandParams":{"packageFamilyName":"f",)"
         LR"("appServiceName":")" +
         service + LR"(","payload":{},"delayDeliverySec":")" + delay + LR"("}})";
}

class WaitingDeliveriesTest : public Tests::StoreTest {
 protected:
  ~WaitingDeliveriesTest() override { machine.clock.Advance(100s); }

  void Deliver(const std::wstring& request, const Platform::SharedHandle& stop = nullptr) {
    PowerEventManager::handle_event(request, nullptr, 7, stop);
    machine.clock.Settle();
  }
  static Platform::SharedHandle MakeStopEvent() {
    auto& objects = *Platform::CurrentMachine().kernelObjects;
    return Platform::Share(*objects.MakeManualEvent({}));
  }
  static std::wstring Ended(const std::wstring& request) {
    return L"warning|PowerEventManager::handle_event - dropped while it waited, because the "
           L"service ends: " +
           request;
  }
};

TEST_F(WaitingDeliveriesTest, TheSixtyFifthOfOneSubscriptionIsDropped) {
  const std::wstring request = Delayed(L"10");
  for (int i = 0; i < 64; ++i) Deliver(request);
  log.Clear();
  Deliver(request);
  EXPECT_THAT(log.Lines(), ElementsAre(L"warning|PowerEventManager::handle_event - dropped, "
                                       L"because 64 deliveries of the same subscription wait "
                                       L"already: " +
                                       request));
  Deliver(Delayed(L"10", L"another"));
  EXPECT_EQ(machine.clock.Workers(), 65U);
  machine.clock.Advance(10s);
  EXPECT_THAT(Sent(), SizeIs(65));
  Deliver(request);
  EXPECT_EQ(machine.clock.Workers(), 1U);
}

TEST_F(WaitingDeliveriesTest, CountAlsoWhileTheyWaitForTheCommandOfAnother) {
  const std::wstring request = Delayed(L"0");
  const auto dropped = [&] {
    const auto lines = log.Lines();
    return std::ranges::count_if(lines, [](const auto& line) { return line.starts_with(L"warn"); });
  };
  const auto deadline = std::chrono::steady_clock::now() + 20s;
  machine.timeline.SetListener([&, first = true](const auto&) mutable {
    if (!std::exchange(first, false)) return;
    for (int i = 0; i < 65; ++i) PowerEventManager::handle_event(request, nullptr, 7);
    while (dropped() == 0 && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  });
  Deliver(request);
  machine.timeline.SetListener({});
  EXPECT_EQ(dropped(), 1);
  EXPECT_THAT(Sent(), SizeIs(1 + 64));
}

TEST_F(WaitingDeliveriesTest, EndWithTheirServiceAndNoOther) {
  for (const bool standbyEvent : {true, false}) {
    SCOPED_TRACE(standbyEvent);
    machine.faults.Clear();
    const auto stop = MakeStopEvent();
    const auto stopOfAnother = MakeStopEvent();
    if (!standbyEvent) machine.faults.FailNamed("KernelObjects.MakeManualEvent");
    Deliver(Delayed(L"10", L"ends"), stop);
    Deliver(Delayed(L"10", L"goes on"), stopOfAnother);
    Deliver(Delayed(L"10", L"has no service"));
    log.Clear();
    const std::size_t sent = Sent().size();
    Platform::CurrentMachine().kernelObjects->Signal(stop.get());
    machine.clock.Settle();
    EXPECT_THAT(log.Lines(), ElementsAre(Ended(Delayed(L"10", L"ends"))));
    Deliver(Delayed(L"10", L"late"), stop);
    EXPECT_EQ(log.Lines().back(), Ended(Delayed(L"10", L"late")));
    EXPECT_EQ(machine.clock.Workers(), 2U);
    machine.clock.Advance(10s);
    EXPECT_EQ(Sent().size() - sent, 2U);
  }
}

TEST_F(WaitingDeliveriesTest, EndWithTheirServiceAlsoWhileTheyWaitForTheCommandOfAnother) {
  const auto stop = MakeStopEvent();
  machine.timeline.SetListener(
      [&](const auto&) { Platform::CurrentMachine().kernelObjects->Signal(stop.get()); });
  PowerEventManager::handle_event(Delayed(L"0", L"a"), nullptr, 7, stop);
  PowerEventManager::handle_event(Delayed(L"0", L"b"), nullptr, 7, stop);
  machine.clock.Settle();
  machine.timeline.SetListener({});
  EXPECT_THAT(Sent(), SizeIs(1));
  EXPECT_THAT(log.Lines(), Contains(AnyOf(Ended(Delayed(L"0", L"a")), Ended(Delayed(L"0", L"b")))));
}

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane
