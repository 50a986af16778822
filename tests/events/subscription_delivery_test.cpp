// Deliveries that no scenario can reproduce. scenarios/ covers what the others log, and when.

#include "events/subscription_delivery.h"

#include "storage/cap_data_store.h"
#include "storage/service_document.h"
#include "support/machine_test.h"
#include "support/test.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr std::uint32_t kEvent = 7;
constexpr wchar_t kManager[] = L"info|PowerEventManager::handle_event ";

std::wstring Request(const std::wstring& kind, const std::wstring& rest = {}) {
  return L"{\"" + kind + L"Type\":7,\"" + (kind == L"powerEvent" ? L"event" : kind) +
         LR"(Action":2,"commandParams":{"packageFamilyName":"f","appServiceName":"s","payload":{})" +
         rest + L"}}";
}

class DeliveryTest : public Tests::StoreTest {
 protected:
  void Deliver(const std::wstring& request) {
    kPowerEvents.handleEvent(request, nullptr, kEvent, nullptr);
    machine.clock.Settle();
  }
};

TEST_F(DeliveryTest, ChecksAProgramWithoutHoldingUpOtherDeliveries) {
  bool others = false;
  const Tests::LogTrap check(L"AquireFileReadOnlyLock", 1,
                             [&] { others = Tests::IsFree(*kPowerEvents.handleEventMutex); });
  Deliver(LR"({"powerEventType":7,"eventAction":1,"commandParams":{"path":"C:\\windows\\x.exe"}})");
  EXPECT_TRUE(others);
}

TEST_F(DeliveryTest, ReportsOnceThatTheStandbyEventsNameIsTakenAndWaits) {
  constexpr wchar_t kName[] = L"{CE7DC567-F47B-4A07-8489-C9DEB372B88F}";
  constexpr wchar_t kReport[] =
      L"warning|Another program has given the name {CE7DC567-F47B-4A07-8489-C9DEB372B88F} to an "
      L"object that is not an event. Modern Standby is not noticed until that object is gone.";
  for (std::size_t round = 1; round <= 2; ++round) {
    Platform::UniqueHandle otherProgram(CreateMutexW(nullptr, FALSE, kName));
    for (int delivery = 0; delivery < 3; ++delivery) {
      if (delivery == 2) otherProgram.reset();
      Deliver(Request(L"powerEvent", LR"(,"delayDeliverySec":"1")"));
      EXPECT_THAT(log.Lines(), Contains(kReport).Times(round));
      EXPECT_THAT(log.Records().back(), StartsWith(L"power 7 waiting "));
      machine.clock.Advance(1s);
      EXPECT_THAT(log.Records().back(), StartsWith(L"power 7 sent "));
    }
  }
}

TEST_F(DeliveryTest, LogsACommandThatFailsAndRunsTheNext) {
  const std::pair<std::function<void()>, const wchar_t*> cases[] = {
      {[] { throw std::runtime_error("boom"); }, L" Message: boom, Status: -2147467259"},
      {[] { throw Platform::WindowsRuntimeError(5, L"\u00e9"); }, L", Status: 5"},
      {[] { throw std::system_error(8, std::system_category(), "full"); }, L", Status: 8"},
  };
  for (const auto& [failure, end] : cases) {
    machine.timeline.SetListener([&throws = failure](const auto&) { throws(); });
    Deliver(Request(L"powerEvent"));
    EXPECT_THAT(log.Lines().back(),
                AllOf(StartsWith(L"error|Failed to execute command in PowerManager::handle_event. "
                                 L"Message: "),
                      EndsWith(end)));
  }
  machine.timeline.SetListener({});
  Deliver(Request(L"powerEvent"));
  EXPECT_EQ(log.Lines().back(), std::wstring(kManager) + L"Executed: " + Request(L"powerEvent"));
}

TEST_F(DeliveryTest, OfTenThousandRunsTheHundredThatMatchAndNoOther) {
  std::wstring list = L"[";
  for (int i = 0; i < 10'000; ++i) {
    std::wstring request =
        Request(L"powerEvent", LR"(,"delayDeliverySec":"0","n":)" + std::to_wstring(i));
    if (i % 100 != 0) request.replace(request.find(L":7"), 2, L":8");
    list += request + (i == 9'999 ? L"]" : L",");
  }
  Storage::CapDataStore().mergeMember(kServiceDocument, kPowerSubscriptions,
                                      Storage::BsonElement::Text(list));
  machine.faults.Clear();
  FulfillSubscriptions(kPowerEvents, kEvent);
  machine.clock.Settle();
  EXPECT_EQ(std::ranges::count(machine.faults.Calls(), "Threads.Start"), 100);
  EXPECT_EQ(Sent().size(), 100U);
}

TEST_F(DeliveryTest, ACommandKeepsThoseOfItsOwnKindWaitingAndNoOther) {
  const struct {
    const DeliveryKind& kind;
    const wchar_t* name;
    const DeliveryKind& other;
  } cases[] = {{kPowerEvents, L"powerEvent", kZephraEvents},
               {kZephraEvents, L"zephraEvent", kPowerEvents}};
  for (const auto& c : cases) {
    int commands = 0;
    machine.timeline.SetListener([&](const auto&) {
      ++commands;
      EXPECT_FALSE(Tests::IsFree(*c.kind.handleEventMutex));
      EXPECT_TRUE(Tests::IsFree(*c.other.handleEventMutex));
    });
    c.kind.handleEvent(Request(c.name), nullptr, kEvent, nullptr);
    machine.clock.Settle();
    EXPECT_EQ(commands, 1);
    EXPECT_TRUE(Tests::IsFree(*c.kind.handleEventMutex));
  }
}

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane
