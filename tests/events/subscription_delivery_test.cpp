#include "events/subscription_delivery.h"

#include <gmock/gmock.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>

#include <windows.h>

#include "events/power_events.h"
#include "events/zephra_events.h"
#include "platform/kernel_objects.h"
#include "storage/cap_data_store.h"
#include "storage/request_manager.h"
#include "support/machine_test.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;
using Lines = std::vector<std::wstring>;

// One kind of subscription, with the texts that differ between the kinds.
struct Kind {
  const char* name;
  const DeliveryKind& delivery;
  std::wstring typeKey;
  std::wstring actionKey;
  std::wstring manager;
  std::wstring delayStart;
  std::wstring failure;
  std::wstring operation;
};

const Kind& Power() {
  static const Kind kind{"power",
                         kPowerEvents,
                         L"powerEventType",
                         L"eventAction",
                         L"PowerEventManager::handle_event ",
                         L"delay start: ",
                         L" in PowerManager::handle_event.",
                         L"PowerEvent"};
  return kind;
}

const Kind& Zephra() {
  static const Kind kind{"zephra",
                         kZephraEvents,
                         L"zephraEventType",
                         L"zephraEventAction",
                         L"ZephraEventManager::handle_event ",
                         L"delay: ",
                         L" in ZephraEventManager::handle_event.",
                         L"ZephraEvent"};
  return kind;
}

std::wstring Request(const Kind& kind, std::uint32_t type, const std::wstring& rest = {},
                     const std::wstring& payload = LR"({"a":[1.5,"x"]})") {
  return L"{\"" + kind.typeKey + L"\":" + std::to_wstring(type) + L",\"" + kind.actionKey +
         LR"(":2,"commandParams":{"packageFamilyName":"f","appServiceName":"s","payload":)" +
         payload + rest + L"}}";
}

std::wstring Delayed(const Kind& kind, const std::wstring& delay) {
  return Request(kind, 7, LR"(,"delayDeliverySec":")" + delay + L"\"");
}

class DeliveryTest : public Tests::StoreTest, public testing::WithParamInterface<const Kind*> {
 protected:
  void Deliver(const std::wstring& request, std::uint32_t eventType = 7) {
    kind.delivery.handleEvent(request, nullptr, eventType, nullptr);
    machine.clock.Settle();
  }
  int Store(const std::wstring& request) { return RegisterSubscription(kind.delivery, request); }
  void Fulfill(std::uint32_t eventType) {
    FulfillSubscriptions(kind.delivery, eventType);
    machine.clock.Settle();
  }

  std::wstring Info(const std::wstring& text) const { return L"info|" + kind.manager + text; }
  std::wstring Executed(const std::wstring& request) const { return Info(L"Executed: " + request); }
  auto Failure(const std::wstring& end) const {
    return AllOf(StartsWith(L"error|Failed to execute command" + kind.failure + L" Message: "),
                 EndsWith(end));
  }
  auto Threw(const wchar_t* change, const wchar_t* end) const {
    return AllOf(StartsWith(std::wstring(L"error|OrvaneService - ") + change + kind.operation +
                            L" threw hresult_error: Message: "),
                 EndsWith(end));
  }

  const Kind& kind = *GetParam();
};

INSTANTIATE_TEST_SUITE_P(Kinds, DeliveryTest, testing::Values(&Power(), &Zephra()),
                         [](const auto& tested) { return tested.param->name; });

TEST_P(DeliveryTest, RunsAtOnceOrDiscardsWithoutAPositiveDelay) {
  const std::wstring error = L"error|Failed to retrieve delay parameter" + kind.failure;
  const std::wstring none = Info(L"delay: None");
  const std::wstring discarded = Info(L"Event discarded, 0 ms");
  const struct {
    const wchar_t* delay;
    bool runs;
    Lines before;
  } cases[] = {
      {L"0", true, {none}},
      {L"soon", true, {error, none}},
      {L"99999999999", true, {error, none}},
      {L"-3", false, {none, discarded}},
  };
  Deliver(Delayed(kind, L"0"), 18);  // another event
  EXPECT_THAT(log.Lines(), IsEmpty());
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(c.delay)));
    const std::wstring request = Delayed(kind, c.delay);
    log.Clear();
    const std::size_t before = Sent().size();
    Deliver(request);
    Lines expected = c.before;
    if (c.runs) expected.push_back(Executed(request));
    EXPECT_EQ(log.Lines(), expected);
    EXPECT_EQ(Sent().size() - before, c.runs ? 1U : 0U);
  }
}

TEST_P(DeliveryTest, MeasuresTheDelayAndDiscardsWhatCameTooFarFromIt) {
  const auto none = std::optional<milliseconds>();
  const struct {
    const char* name;
    const wchar_t* delay;
    std::optional<milliseconds> standbyAfter;
    milliseconds asleep;  // before the wait; the tick count includes sleep
    bool noEvent;
    std::optional<int> discarded;
  } cases[] = {
      {"waited out", L"10", none, 0ms, false, std::nullopt},
      {"slept a moment longer", L"10", none, 2001ms, false, 12001},
      {"standby early in a long delay", L"10", 300ms, 0ms, false, 2001},
      {"standby just late enough", L"5", 3000ms, 0ms, false, std::nullopt},
      {"no standby event, slept", L"10", none, 5000ms, true, 15000},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::wstring delay = c.delay;
    const std::wstring request = Delayed(kind, delay);
    log.Clear();
    const Platform::UniqueHandle standby(
        CreateEventW(nullptr, TRUE, FALSE, L"{CE7DC567-F47B-4A07-8489-C9DEB372B88F}"));
    machine.faults.Clear();
    if (c.noEvent) machine.faults.FailNamed("KernelObjects.MakeManualEvent");
    Lines expected{Info(kind.delayStart + delay)};

    Deliver(request);
    EXPECT_EQ(log.Lines(), expected);
    machine.clock.JumpTicks(c.asleep);
    machine.clock.Advance(c.standbyAfter.value_or(std::stoi(delay) * 1000ms) - 1ms);
    EXPECT_EQ(log.Lines(), expected);
    machine.clock.Advance(1ms);
    if (c.standbyAfter) {
      SetEvent(standby.get());
      machine.clock.Settle();
      expected.push_back(Info(L"receive Modern Standby enter event"));
    }

    expected.push_back(Info(L"delay end: " + delay));
    expected.push_back(c.discarded
                           ? Info(L"Event discarded, " + std::to_wstring(*c.discarded) + L" ms")
                           : Executed(request));
    EXPECT_EQ(log.Lines(), expected);
    EXPECT_EQ(machine.clock.Workers(), 0U);
  }
}

// The kernel objects of a machine on which another program holds the name of every event.
class TakenEventNames final : public Platform::KernelObjects {
 public:
  Platform::Result<Platform::UniqueHandle> MakeMutex(const std::wstring& name) override {
    return real.MakeMutex(name);
  }
  Platform::ErrorCode LockMutex(Platform::RawHandle mutex) override {
    return real.LockMutex(mutex);
  }
  Platform::ErrorCode UnlockMutex(Platform::RawHandle mutex) override {
    return real.UnlockMutex(mutex);
  }
  Platform::Result<Platform::UniqueHandle> MakeManualEvent(const std::wstring& name) override {
    if (!taken) return real.MakeManualEvent(name);
    return Platform::Result<Platform::UniqueHandle>::Failure(ERROR_INVALID_HANDLE);
  }
  Platform::ErrorCode Signal(Platform::RawHandle event) override { return real.Signal(event); }

  bool taken = true;

 private:
  Platform::KernelObjects& real = *Platform::WindowsMachine().kernelObjects;
};

TEST_P(DeliveryTest, ReportsOnceThatTheStandbyEventsNameIsTakenAndWaits) {
  TakenEventNames names;
  const Platform::MachineScope taken(
      [&](Platform::Machine& platform) { platform.kernelObjects = &names; });
  const std::wstring request = Delayed(kind, L"1");
  const Lines waited{Info(kind.delayStart + L"1"), Info(L"delay end: 1"), Executed(request)};
  const auto deliver = [&] {
    log.Clear();
    Deliver(request);
    machine.clock.Advance(1s);
    return log.Lines();
  };
  for (int round = 0; round < 2; ++round) {
    Lines reported = waited;
    reported.insert(reported.begin() + 1,
                    L"warning|Another program has given the name "
                    L"{CE7DC567-F47B-4A07-8489-C9DEB372B88F} to an object that is not an event. "
                    L"Modern Standby is not noticed until that object is gone.");
    EXPECT_EQ(deliver(), reported);
    EXPECT_EQ(deliver(), waited);
    names.taken = false;
    EXPECT_EQ(deliver(), waited);
    names.taken = true;
  }
  names.taken = false;
  deliver();
}

TEST_P(DeliveryTest, RaisesACustomTriggerInsteadOfSendingUnlessItIsOverdue) {
  const std::wstring payload = LR"({"customTriggerGUID":"{g}"})";
  Deliver(Request(kind, 7, LR"(,"delayDeliverySec":"-3")", payload));
  EXPECT_THAT(machine.system.RaisedTriggers(), IsEmpty());

  const std::wstring request = Request(kind, 7, L"", payload);
  Deliver(request);
  EXPECT_THAT(machine.system.RaisedTriggers(), ElementsAre(L"{g}"));
  machine.system.SetTriggerStatus(3221225474);
  Deliver(request);
  EXPECT_EQ(log.Lines().back(), Info(L"CustomTrigger raised: 3221225474 " + request));
  EXPECT_THAT(Sent(), IsEmpty());
}

TEST_P(DeliveryTest, ReadsTheDelayOfALaunchCommandToo) {
  Deliver(L"{\"" + kind.typeKey + L"\":7.9,\"" + kind.actionKey +
          LR"(":1.2,"commandParams":{"path":"","delayDeliverySec":" 3s"}})");
  EXPECT_THAT(log.Lines(), ElementsAre(Info(kind.delayStart + L"3")));
  machine.clock.Advance(3000ms);
  EXPECT_THAT(log.Lines().back(), StartsWith(Info(L"Executed: ")));
}

TEST_P(DeliveryTest, OnlyLogsARequestThatIsNone) {
  const std::wstring open = L"{\"" + kind.typeKey + L"\":";
  const std::wstring action = open + L"7,\"" + kind.actionKey + L"\":";
  const struct {
    std::wstring request;
    const wchar_t* status;
  } cases[] = {
      {L"", L"-2089484281"},
      {std::wstring(100000, L'['), L"-2089484281"},
      {L"{}", L"-2089484279"},
      {open + L"\"7\"}", L"-2147483634"},
      {action + L"3,\"commandParams\":{}}", L"536870919"},
      {action + L"1e300,\"commandParams\":{}}", L"536870919"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.request.substr(0, 60)));
    log.Clear();
    Deliver(c.request);
    EXPECT_THAT(log.Lines(), ElementsAre(Failure(L", Status: " + std::wstring(c.status))));
  }
}

TEST_P(DeliveryTest, LogsACommandThatFailsAndRunsTheNext) {
  const struct {
    std::function<void()> failure;
    const wchar_t* end;
  } cases[] = {
      {[] { throw std::runtime_error("boom"); }, L" Message: boom, Status: -2147467259"},
      {[] { throw Platform::WindowsRuntimeError(5, L"\u00e9"); }, L", Status: 5"},
      {[] { throw std::system_error(8, std::system_category(), "full"); }, L", Status: 8"},
  };
  for (const auto& c : cases) {
    machine.timeline.SetListener([&](const auto&) { c.failure(); });
    Deliver(Request(kind, 7));
    ASSERT_FALSE(log.Lines().empty());
    EXPECT_THAT(log.Lines().back(), Failure(c.end));
  }
  machine.timeline.SetListener({});
  Deliver(Request(kind, 7));
  EXPECT_EQ(log.Lines().back(), Executed(Request(kind, 7)));
}

TEST_P(DeliveryTest, TellsItsCallerThatNoThreadCanBeStarted) {
  machine.faults.FailNamed("Threads.Start");
  EXPECT_THROW(Deliver(Request(kind, 7)), std::system_error);
}

TEST_P(DeliveryTest, ReplaysWhatIsStoredForEachOfItsEventsUntilItIsRemoved) {
  const std::wstring seven = Request(kind, 7);
  for (const auto& request : {seven, std::wstring(L"{\"broken\":1}"), Request(kind, 18)}) {
    EXPECT_EQ(Store(request), 0);
  }
  Fulfill(7);
  Fulfill(7);
  EXPECT_THAT(Sent(), ElementsAre(LR"(f/s {"a":[1.5,"x"]})", LR"(f/s {"a":[1.5,"x"]})"));

  log.Clear();
  EXPECT_EQ(UnregisterSubscription(kind.delivery, seven), 0);
  EXPECT_THAT(log.Lines(), IsEmpty());
  EXPECT_EQ(UnregisterSubscription(kind.delivery, seven), 0);
  EXPECT_THAT(log.Lines(), ElementsAre(L"warning|OrvaneService - Unregister" + kind.operation +
                                       L": no stored subscription has exactly this text"));
  Fulfill(7);
  EXPECT_THAT(Sent(), SizeIs(2));
  Fulfill(18);
  EXPECT_THAT(Sent(), SizeIs(3));
}

TEST_P(DeliveryTest, KeepsTheFirstOfTwoEqualSubscriptionsAndLogsWhatCannotBeChanged) {
  Store(Delayed(kind, L"5"));
  log.Clear();
  EXPECT_EQ(Store(Delayed(kind, L"0")), 0);  // differs only in its delay
  EXPECT_THAT(log.Lines(), ElementsAre(Threw(L"Register", L", Code: 1")));
  log.Clear();
  Fulfill(7);
  EXPECT_THAT(log.Lines(), ElementsAre(EndsWith(kind.delayStart + L"5")));
  machine.clock.Advance(5000ms);

  EXPECT_EQ(Store(L"no JSON"), 0);
  EXPECT_THAT(log.Lines().back(), Threw(L"Register", L""));
  Storage::CapDataStore().mergeMember(kServiceDocument, kind.delivery.storeKey,
                                      Storage::BsonElement::Text("no list"));
  EXPECT_EQ(UnregisterSubscription(kind.delivery, L"{}"), 0);
  EXPECT_THAT(log.Lines().back(), Threw(L"Unregister", L""));
}

// Holds the lock of one kind as a busy worker would.
TEST_P(DeliveryTest, RunsItsCommandsOneAtATimeAndThoseOfTheOtherKindBesideThem) {
  const Kind& other = &kind == &Power() ? Zephra() : Power();
  {
    const std::lock_guard busy(*kind.delivery.handleEventMutex);
    kind.delivery.handleEvent(Request(kind, 7), nullptr, 7, nullptr);
    other.delivery.handleEvent(Request(other, 7), nullptr, 7, nullptr);
    for (int tries = 0; tries < 2000 && Sent().empty(); ++tries) Sleep(5);
    Sleep(50);  // time for the command that must not run
    EXPECT_THAT(Sent(), SizeIs(1));
  }
  machine.clock.Settle();
  EXPECT_THAT(Sent(), SizeIs(2));
}

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane
