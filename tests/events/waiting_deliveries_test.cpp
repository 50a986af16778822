
#include <cerrno>

#include "events/subscription_delivery.h"
#include "platform/kernel_objects.h"
#include "platform/thread.h"
#include "support/machine_test.h"
#include "support/test.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

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
};

TEST_F(WaitingDeliveriesTest, TheSixtyFifthOfOneSubscriptionIsDropped) {
  const std::wstring request = Delayed(L"10");
  for (int i = 0; i < 64; ++i) Deliver(request);
  log.Clear();
  int told = 0;
  const Tests::LogTrap line(L"too many deliveries of it are already waiting", 1, [&] { ++told; });
  Deliver(request);
  EXPECT_THAT(log.Records(), ElementsAre(StartsWith(L"power 7 dropped:too_many_of_one f/s of ")));
  EXPECT_EQ(told, 1);
  Deliver(Delayed(L"10", L"another"));
  EXPECT_EQ(machine.clock.Workers(), 65U);
  machine.clock.Advance(10s);
  EXPECT_THAT(Sent(), SizeIs(65));
  Deliver(request);
  EXPECT_EQ(machine.clock.Workers(), 1U);
}

// Queues each requested worker instead of starting its thread. LetGo runs queued workers.
class HeldThreads final : public Platform::Threads {
 public:
  Platform::Result<Platform::UniqueHandle> Start(std::function<void()> body) override {
    if (refuse) return Platform::Failure(EAGAIN);
    held.push_back(std::move(body));
    return Platform::CurrentMachine().kernelObjects->MakeManualEvent({});  // any handle
  }
  void LetGo(std::size_t count) {
    while (count-- > 0) {
      std::thread(std::exchange(held.front(), nullptr)).join();
      held.pop_front();
    }
  }

  std::deque<std::function<void()>> held;
  bool refuse = false;
};

TEST_F(WaitingDeliveriesTest, TheOneAfterAThousandAndTwentyFourOfAllKindsIsDroppedWithoutAThread) {
  HeldThreads threads;
  const Platform::MachineScope holding([&](auto& platform) { platform.threads = &threads; });
  int made = 0;
  const auto deliver = [&] {  // alternates between platform and power requests
    std::wstring request = Delayed(L"0", std::to_wstring(++made));
    const bool power = made % 2 == 0;
    if (!power) {
      request.replace(0, request.find(L"\":2"), LR"({"zephraEventType":7,"zephraEventAction)");
    }
    (power ? kPowerEvents : kZephraEvents).handleEvent(request, nullptr, 7, nullptr);
    return request;
  };
  for (int i = 0; i < 1025; ++i) {  // these occupy no slot
    PowerEventManager::handle_event(L"{}", nullptr, 7);
    PowerEventManager::handle_event(Delayed(L"0"), nullptr, 8);
  }
  threads.refuse = true;
  EXPECT_THROW(deliver(), std::system_error);
  EXPECT_THROW(deliver(), std::system_error);
  threads.refuse = false;
  for (int i = 0; i < 1024; ++i) deliver();
  EXPECT_EQ(threads.held.size(), 1024U);

  log.Clear();
  int told = 0;
  const Tests::LogTrap line(L"too many deliveries exist already", 2, [&] { ++told; });
  deliver();
  deliver();
  EXPECT_EQ(told, 1);
  EXPECT_THAT(log.Records(), ElementsAre(StartsWith(L"platform 7 dropped:too_many_of_all f/1027"),
                                         StartsWith(L"power 7 dropped:too_many_of_all f/1028")));
  machine.timeline.SetListener([&](const auto&) { deliver(); });  // a running one keeps its slot
  threads.LetGo(1);
  machine.timeline.SetListener({});
  EXPECT_EQ(threads.held.size(), 1023U);
  deliver();
  deliver();
  EXPECT_EQ(threads.held.size(), 1024U);
  threads.LetGo(1024);
  EXPECT_THAT(Sent(), SizeIs(1025));
}

TEST_F(WaitingDeliveriesTest, TheOneWhoseLongTextDoesNotFitBesideTheOthersIsDropped) {
  HeldThreads threads;
  const Platform::MachineScope holding([&](auto& platform) { platform.threads = &threads; });
  const auto deliver = [&](std::size_t length) {
    std::wstring request = Delayed(L"0");
    request.insert(1, LR"("padding":"",)");
    request.insert(12, length - request.size(), L'x');
    PowerEventManager::handle_event(request, nullptr, 7);
    return threads.held.size();
  };
  for (std::size_t i = 0; i < kMostLongText; i += kMostLongText / 4) deliver(kMostLongText / 4);
  EXPECT_EQ(threads.held.size(), 4U);
  log.Clear();
  EXPECT_EQ(deliver(kShortRequest + 1), 4U);
  EXPECT_THAT(log.Records(), ElementsAre(StartsWith(L"power 7 dropped:too_many_of_all f/s of ")));
  EXPECT_EQ(deliver(kShortRequest), 5U);
  threads.LetGo(1);
  EXPECT_EQ(deliver(kShortRequest + 1), 5U);
  threads.LetGo(5);
  EXPECT_EQ(deliver(kMostLongText), 1U);
  threads.LetGo(1);
}

TEST_F(WaitingDeliveriesTest, CountAlsoWhileTheyWaitForTheCommandOfAnother) {
  const std::wstring request = Delayed(L"0");
  const auto dropped = [&] {
    const auto all = log.Records();
    return std::ranges::count_if(
        all, [](const auto& record) { return record.find(L"too_many_of_one") != record.npos; });
  };
  machine.timeline.SetListener([&, first = true](const auto&) mutable {
    if (!std::exchange(first, false)) return;
    for (int i = 0; i < 65; ++i) PowerEventManager::handle_event(request, nullptr, 7);
    Tests::Eventually([&] { return dropped() != 0; }, 20s);
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
    EXPECT_THAT(log.Records(),
                ElementsAre(AllOf(StartsWith(L"power 7 dropped:service_ended f/ends of "),
                                  Not(HasSubstr(L" after ")))));
    Deliver(Delayed(L"10", L"late"), stop);
    EXPECT_THAT(log.Records().back(), StartsWith(L"power 7 dropped:service_ended f/late "));
    EXPECT_EQ(machine.clock.Workers(), 2U);
    machine.clock.Advance(10s);
    EXPECT_EQ(Sent().size() - sent, 2U);
  }
}

TEST_F(WaitingDeliveriesTest, RunAtTheirTimeAlthoughTheWaitFailsInTheMiddle) {
  machine.faults.FailNamed("Clock.Wait");
  Deliver(Delayed(L"10"));
  machine.clock.Advance(9999ms);
  EXPECT_THAT(Sent(), SizeIs(0));
  machine.clock.Advance(1ms);
  EXPECT_THAT(Sent(), SizeIs(1));
}

// The service ends while the program is being checked.
TEST_F(WaitingDeliveriesTest, RunOnceTheirDelayIsOverEvenIfTheirServiceEnds) {
  for (const std::wstring delay : {L"0", L"10"}) {
    const std::wstring request =
        LR"({"powerEventType":7,"eventAction":1,"commandParams":{"path":"C:\\windows\\x.exe",)"
        LR"("delayDeliverySec":")" +
        delay + LR"("}})";
    const auto stop = MakeStopEvent();
    const Tests::LogTrap check(L"AquireFileReadOnlyLock", 1, [&] {
      Platform::CurrentMachine().kernelObjects->Signal(stop.get());
    });
    Deliver(request, stop);
    machine.clock.Advance(10s);
    EXPECT_EQ(log.Lines().back(), L"info|PowerEventManager::handle_event Executed: " + request);
  }
}

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane
