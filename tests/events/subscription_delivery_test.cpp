#include "events/subscription_delivery.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <windows.h>

#include "events/fake_app_services.h"
#include "events/power_events.h"
#include "events/zephra_events.h"
#include "platform/kernel_objects.h"
#include "platform/machine.h"
#include "platform/system_services.h"
#include "platform/thread.h"
#include "simulator/virtual_clock.h"
#include "storage/request_manager.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using namespace std::chrono_literals;
using Platform::ErrorCode;
using Platform::Machine;
using Platform::MachineScope;
using Platform::Result;
using Platform::UniqueHandle;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;
using Tests::FakeAppServices;
using Tests::LogCapture;
using Lines = std::vector<std::wstring>;

constexpr wchar_t kStandbyEvent[] = L"{CE7DC567-F47B-4A07-8489-C9DEB372B88F}";

// One kind of subscription, and the documented words in which it differs from the other.
struct Kind {
  const char* name;
  const wchar_t* typeKey;
  const wchar_t* actionKey;
  DeliveryHandler handle;
  int (*add)(const std::wstring&);
  int (*remove)(const std::wstring&);
  void (*fulfill)(std::uint32_t);
  std::wstring manager;
  std::wstring delayStart;
  std::wstring failure;
  std::wstring operation;
};

const Kind& Power() {
  static const Kind kind{"power",
                         L"powerEventType",
                         L"eventAction",
                         &PowerEventManager::handle_event,
                         &RegisterPowerSubscription,
                         &UnregisterPowerSubscription,
                         &FulfillPowerSubscriptions,
                         L"PowerEventManager::handle_event ",
                         L"delay start: ",
                         L" in PowerManager::handle_event.",
                         L"PowerEvent"};
  return kind;
}

const Kind& Zephra() {
  static const Kind kind{"zephra",
                         L"zephraEventType",
                         L"zephraEventAction",
                         &ZephraEventManager::handle_event,
                         &RegisterZephraSubscription,
                         &UnregisterZephraSubscription,
                         &FulfillZephraSubscriptions,
                         L"ZephraEventManager::handle_event ",
                         L"delay: ",
                         L" in ZephraEventManager::handle_event.",
                         L"ZephraEvent"};
  return kind;
}

// Named events that no other process of the same machine meets.
class PrivateEvents final : public Platform::KernelObjects {
 public:
  Result<UniqueHandle> MakeMutex(const std::wstring& name) override { return real.MakeMutex(name); }
  ErrorCode LockMutex(Platform::RawHandle mutex) override { return real.LockMutex(mutex); }
  ErrorCode UnlockMutex(Platform::RawHandle mutex) override { return real.UnlockMutex(mutex); }
  Result<UniqueHandle> MakeManualEvent(const std::wstring& name) override {
    if (error != 0) return Result<UniqueHandle>::Failure(error);
    return real.MakeManualEvent(name.empty() ? name
                                             : name + std::to_wstring(GetCurrentProcessId()));
  }
  ErrorCode Signal(Platform::RawHandle event) override { return real.Signal(event); }

  ErrorCode error = 0;

 private:
  Platform::KernelObjects& real = *Platform::WindowsMachine().kernelObjects;
};

class FakeTriggers final : public Platform::SystemTriggers {
 public:
  std::uint32_t Raise(const std::wstring& triggerId) override {
    raised.push_back(triggerId);
    return 3221225474;
  }
  std::vector<std::wstring> raised;
};

class FailingThreads final : public Platform::Threads {
 public:
  Result<UniqueHandle> Start(std::function<void()>) override {
    return Result<UniqueHandle>::Failure(EAGAIN);
  }
};

std::wstring Request(const Kind& kind, std::uint32_t type, const std::wstring& rest = {},
                     const std::wstring& payload = L"{}") {
  return L"{\"" + std::wstring(kind.typeKey) + L"\":" + std::to_wstring(type) + L",\"" +
         kind.actionKey +
         LR"(":2,"commandParams":{"packageFamilyName":"f","appServiceName":"s","payload":)" +
         payload + rest + L"}}";
}

std::wstring Delayed(const Kind& kind, const std::wstring& delay) {
  return Request(kind, 7, LR"(,"delayDeliverySec":")" + delay + L"\"");
}

class DeliveryTest : public testing::TestWithParam<const Kind*> {
 protected:
  const Kind& kind = *GetParam();
  Simulator::VirtualClock clock;
  PrivateEvents kernelObjects;
  FakeTriggers triggers;
  FakeAppServices services;
  MachineScope scope{[this](Machine& machine) {
    machine.clock = &clock;
    machine.kernelObjects = &kernelObjects;
    machine.systemTriggers = &triggers;
    machine.appServices = &services;
  }};
  LogCapture log;

  void Deliver(const std::wstring& request, std::uint32_t eventType = 7) {
    kind.handle(request, nullptr, eventType);
    clock.Settle();
  }

  std::wstring Info(const std::wstring& text) const { return L"info|" + kind.manager + text; }
  std::wstring Executed(const std::wstring& request) const { return Info(L"Executed: " + request); }
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
      {L"", true, {error, none}},
      {L"soon", true, {error, none}},
      {L"99999999999", true, {error, none}},
      {L"-1", true, {none}},
      {L"-2", true, {none}},
      {L"-3", false, {none, discarded}},
      {L"-2147483648", false, {none, discarded}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(c.delay)));
    const std::wstring request = Delayed(kind, c.delay);
    log.Clear();
    const std::size_t before = services.Sent().size();
    Deliver(request);
    Lines expected = c.before;
    if (c.runs) expected.push_back(Executed(request));
    EXPECT_EQ(log.Lines(), expected);
    EXPECT_EQ(services.Sent().size() - before, c.runs ? 1U : 0U);
    EXPECT_EQ(clock.Workers(), 0U);
  }
}

TEST_P(DeliveryTest, MeasuresTheDelayAndDiscardsWhatCameTooFarFromIt) {
  const auto none = std::optional<milliseconds>();
  const struct {
    const char* name;
    const wchar_t* delay;
    std::optional<milliseconds> standbyAfter;
    milliseconds sleptAfterASecond;  // the tick count runs on while the machine sleeps
    ErrorCode eventError;
    std::optional<int> discarded;
  } cases[] = {
      {"waited out", L"10", none, 0ms, 0, std::nullopt},
      {"slept two seconds", L"10", none, 2000ms, 0, std::nullopt},
      {"slept a moment longer", L"10", none, 2001ms, 0, 12001},
      {"slept five seconds", L"10", none, 5000ms, 0, 15000},
      {"standby early in a long delay", L"10", 300ms, 0ms, 0, 2001},
      {"standby early in a short delay", L"1", 300ms, 0ms, 0, std::nullopt},
      {"standby too early", L"5", 2999ms, 0ms, 0, 2999},
      {"standby just late enough", L"5", 3000ms, 0ms, 0, std::nullopt},
      {"standby after a sleep", L"60", 2000ms, 57000ms, 0, std::nullopt},
      {"no standby event", L"10", none, 0ms, 5, std::nullopt},
      {"no standby event, slept", L"10", none, 5000ms, 5, 15000},
      {"longer than 32 bits of milliseconds", L"2147483647", none, 0ms, 0, 1000},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::wstring delay = c.delay;
    const std::wstring request = Delayed(kind, delay);
    log.Clear();
    kernelObjects.error = 0;
    const auto standby = kernelObjects.MakeManualEvent(kStandbyEvent);
    kernelObjects.error = c.eventError;

    Deliver(request);
    EXPECT_THAT(log.Lines(), ElementsAre(Info(kind.delayStart + delay)));
    if (c.sleptAfterASecond > 0ms) {
      clock.Advance(1000ms);
      clock.JumpTicks(c.sleptAfterASecond);
    }
    if (c.standbyAfter) {
      clock.Advance(*c.standbyAfter - (c.sleptAfterASecond > 0ms ? 1000ms : 0ms));
      SetEvent(standby->get());
      clock.Settle();
    } else {
      clock.Advance(std::stoi(delay) * 1000ms - (c.sleptAfterASecond > 0ms ? 1001ms : 1ms));
      EXPECT_THAT(log.Lines(), SizeIs(1));
      clock.Advance(1ms);
    }

    Lines expected{Info(kind.delayStart + delay)};
    if (c.standbyAfter) expected.push_back(Info(L"receive Modern Standby enter event"));
    expected.push_back(Info(L"delay end: " + delay));
    expected.push_back(c.discarded
                           ? Info(L"Event discarded, " + std::to_wstring(*c.discarded) + L" ms")
                           : Executed(request));
    EXPECT_EQ(log.Lines(), expected);
    EXPECT_EQ(clock.Workers(), 0U);
  }
}

TEST_P(DeliveryTest, HeedsOnlyItsOwnEvent) {
  const std::wstring request = Request(kind, 7);
  Deliver(request, 18);
  EXPECT_THAT(log.Lines(), IsEmpty());
  Deliver(request, 7);
  Deliver(request, 7);
  EXPECT_THAT(services.Sent(), ElementsAre(L"f/s {}", L"f/s {}"));
}

TEST_P(DeliveryTest, RaisesACustomTriggerInsteadOfSending) {
  const std::wstring request = Request(kind, 7, L"", LR"({"customTriggerGUID":"{g}"})");
  Deliver(request);
  EXPECT_THAT(triggers.raised, ElementsAre(L"{g}"));
  EXPECT_THAT(services.Sent(), IsEmpty());
  EXPECT_THAT(log.Lines(), ElementsAre(Info(L"delay: None"),
                                       Info(L"CustomTrigger raised: 3221225474 " + request)));
}

TEST_P(DeliveryTest, DiscardsBeforeItRaisesATrigger) {
  Deliver(Request(kind, 7, LR"(,"delayDeliverySec":"-3")", LR"({"customTriggerGUID":"{g}"})"));
  EXPECT_THAT(triggers.raised, IsEmpty());
}

TEST_P(DeliveryTest, ReadsTheDelayOfALaunchCommandToo) {
  Deliver(L"{\"" + std::wstring(kind.typeKey) + L"\":7.9,\"" + kind.actionKey +
          LR"(":1.2,"commandParams":{"path":"","delayDeliverySec":" 3s"}})");
  EXPECT_THAT(log.Lines(), ElementsAre(Info(kind.delayStart + L"3")));
  clock.Advance(3000ms);
  EXPECT_THAT(log.Lines().back(), StartsWith(Info(L"Executed: ")));
}

TEST_P(DeliveryTest, OnlyLogsARequestThatIsNone) {
  const std::wstring key = kind.typeKey;
  const struct {
    const char* name;
    std::wstring request;
    const wchar_t* status;
  } cases[] = {
      {"broken text", L"{", L"-2089484281"},
      {"nothing", L"", L"-2089484281"},
      {"100,000 brackets", std::wstring(100000, L'['), L"-2089484281"},
      {"no object", L"[7]", L"-2089484281"},
      {"no type", L"{}", L"-2089484279"},
      {"a type in words", L"{\"" + key + L"\":\"7\"}", L"-2147483634"},
      {"an unknown action",
       L"{\"" + key + L"\":7,\"" + kind.actionKey + L"\":3,\"commandParams\":{}}", L"536870919"},
      {"an action beyond any number",
       L"{\"" + key + L"\":7,\"" + kind.actionKey + L"\":1e300,\"commandParams\":{}}",
       L"536870919"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    log.Clear();
    Deliver(c.request);
    ASSERT_THAT(log.Lines(), SizeIs(1));
    EXPECT_THAT(log.Lines()[0],
                StartsWith(L"error|Failed to execute command" + kind.failure + L" Message: "));
    EXPECT_THAT(log.Lines()[0], testing::EndsWith(L", Status: " + std::wstring(c.status)));
  }
}

TEST_P(DeliveryTest, LogsACommandThatFailsAndRunsTheNext) {
  const struct {
    std::function<void()> failure;
    const wchar_t* line;
  } cases[] = {
      {[] { throw std::runtime_error("boom"); }, L" Message: boom, Status: -2147467259"},
      {[] { throw winrt::hresult_error(5, L"\u00e9"); }, L", Status: 5"},
      {[] { throw std::system_error(8, std::system_category(), "full"); }, L", Status: 8"},
  };
  for (const auto& c : cases) {
    log.Clear();
    services.onSend = c.failure;
    Deliver(Request(kind, 7));
    ASSERT_FALSE(log.Lines().empty());
    EXPECT_THAT(log.Lines().back(), testing::AllOf(StartsWith(L"error|Failed to execute command" +
                                                              kind.failure + L" Message: "),
                                                   testing::EndsWith(c.line)));
  }
  services.onSend = [] {};
  Deliver(Request(kind, 7));
  EXPECT_THAT(services.Sent(), SizeIs(1));
}

TEST_P(DeliveryTest, TellsItsCallerThatNoThreadCanBeStarted) {
  FailingThreads threads;
  const MachineScope noThreads([&](Machine& machine) { machine.threads = &threads; });
  try {
    kind.handle(Request(kind, 7), nullptr, 7);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code(), std::errc::resource_unavailable_try_again);
  }
}

TEST_P(DeliveryTest, ReplaysWhatIsStoredUntilItIsRemoved) {
  const Tests::PrivateStore store;
  const std::wstring seven = Request(kind, 7);
  const std::wstring eighteen = Request(kind, 18);
  for (const auto& request : {seven, std::wstring(L"{\"broken\":1}"), eighteen}) {
    EXPECT_EQ(kind.add(request), 0);
  }
  kind.fulfill(7);
  clock.Settle();
  kind.fulfill(7);
  clock.Settle();
  EXPECT_THAT(services.Sent(), SizeIs(2));

  log.Clear();
  EXPECT_EQ(kind.remove(seven), 0);
  EXPECT_THAT(log.Lines(), IsEmpty());
  EXPECT_EQ(kind.remove(seven), 0);
  EXPECT_TRUE(log.Has(L"warning|OrvaneService - Unregister" + kind.operation +
                      L": no stored subscription has exactly this text: " + seven));
  kind.fulfill(7);
  clock.Settle();
  EXPECT_THAT(services.Sent(), SizeIs(2));
  kind.fulfill(18);
  clock.Settle();
  EXPECT_THAT(services.Sent(), SizeIs(3));
}

TEST_P(DeliveryTest, KeepsTheFirstOfTwoEqualSubscriptions) {
  const Tests::PrivateStore store;
  kind.add(Delayed(kind, L"5"));
  log.Clear();
  EXPECT_EQ(kind.add(Delayed(kind, L"0")), 0);
  ASSERT_THAT(log.Lines(), SizeIs(1));
  EXPECT_THAT(log.Lines()[0],
              testing::AllOf(StartsWith(L"error|OrvaneService - Register" + kind.operation +
                                        L" threw hresult_error: Message: "),
                             testing::EndsWith(L", Code: 1")));
  log.Clear();
  kind.fulfill(7);
  clock.Settle();
  EXPECT_TRUE(log.Has(Info(kind.delayStart + L"5")));
  clock.Advance(5000ms);
}

TEST_P(DeliveryTest, LogsARequestThatCannotBeStored) {
  const Tests::PrivateStore store;
  kind.add(L"{\"a\":1}");
  log.Clear();
  EXPECT_EQ(kind.add(L"no JSON"), 0);
  ASSERT_FALSE(log.Lines().empty());
  EXPECT_THAT(log.Lines().back(), StartsWith(L"error|OrvaneService - Register" + kind.operation +
                                             L" threw hresult_error: Message: "));
}

TEST(FulfillZephraSubscriptions, SaysThatItStarted) {
  const Tests::PrivateStore store;
  const LogCapture log;
  FulfillZephraSubscriptions(2);
  ASSERT_FALSE(log.Lines().empty());
  EXPECT_EQ(log.Lines().front(),
            L"info|Vx::Tessel::Server::Services::Orvane::OrvaneService::"
            L"FulfillZephraManagementEventRequests: Started");
}

// Real threads and real time: what a virtual clock cannot show.
class ConcurrencyTest : public testing::Test {
 protected:
  ConcurrencyTest() {
    services.onSend = [this] {
      const int now = ++active;
      int seen = most;
      while (now > seen && !most.compare_exchange_weak(seen, now)) {
      }
      for (int tries = 0; tries < patience && most < 2; ++tries) Sleep(5);
      --active;
    };
  }

  bool WaitForSent(std::size_t count) const {
    for (int tries = 0; tries < 2000; ++tries) {
      if (services.Sent().size() == count) return true;
      Sleep(5);
    }
    return false;
  }

  // The workers' last steps follow the sending; the machine must outlive them.
  bool WaitForLines(const std::wstring& part, std::size_t count) const {
    for (int tries = 0; tries < 2000; ++tries) {
      std::size_t found = 0;
      for (const auto& line : log.Lines()) found += line.find(part) != std::wstring::npos ? 1 : 0;
      if (found == count) return true;
      Sleep(5);
    }
    return false;
  }

  FakeAppServices services;
  std::atomic<int> active{0};
  std::atomic<int> most{0};
  int patience = 40;  // pauses that a command gives another one to come in, if it may
  LogCapture log;
};

// The workers run detached; a scope that ends while one of them is left ends the process.
class WorkersGone {
 public:
  explicit WorkersGone(Simulator::VirtualClock& machineClock) : clock(machineClock) {}
  ~WorkersGone() {
    for (int tries = 0; tries < 2000 && clock.Workers() != 0; ++tries) Sleep(5);
  }

 private:
  Simulator::VirtualClock& clock;
};

TEST_F(ConcurrencyTest, CommandsOfOneKindRunOneAtATime) {
  Simulator::VirtualClock clock;  // only to know when the workers are gone
  const MachineScope scope([&](Machine& machine) {
    machine.appServices = &services;
    machine.clock = &clock;
  });
  const WorkersGone last(clock);
  Power().handle(Request(Power(), 7), nullptr, 7);
  Power().handle(Request(Power(), 7), nullptr, 7);
  EXPECT_TRUE(WaitForSent(2));
  EXPECT_EQ(most, 1);
}

TEST_F(ConcurrencyTest, CommandsOfTwoKindsRunAtTheSameTime) {
  Simulator::VirtualClock clock;
  const MachineScope scope([&](Machine& machine) {
    machine.appServices = &services;
    machine.clock = &clock;
  });
  const WorkersGone last(clock);
  patience = 2000;
  Power().handle(Request(Power(), 7), nullptr, 7);
  Zephra().handle(Request(Zephra(), 7), nullptr, 7);
  EXPECT_TRUE(WaitForSent(2));
  EXPECT_EQ(most, 2);
}

TEST_F(ConcurrencyTest, HearsOfModernStandbyThroughTheNamedEvent) {
  const UniqueHandle standby(CreateEventW(nullptr, TRUE, FALSE, kStandbyEvent));
  ASSERT_NE(standby, nullptr);
  ResetEvent(standby.get());
  Power().handle(Delayed(Power(), L"600"), nullptr, 7);
  EXPECT_TRUE(WaitForLines(L"delay start: 600", 1));
  SetEvent(standby.get());
  EXPECT_TRUE(WaitForLines(L"Event discarded, 2001 ms", 1));
  EXPECT_TRUE(log.Has(L"info|PowerEventManager::handle_event receive Modern Standby enter event"));
}

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane
