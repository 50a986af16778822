// Runs each flow with its first, second, ... Windows call failing, until no call is left.

#include "service/simulated_service.h"
#include "storage/store_file.h"
#include "support/test.h"

namespace Vx::Tests {
namespace {

using Codes = std::set<std::uint32_t>;

constexpr std::uint32_t kResumed = 7;
constexpr std::int32_t kKept = 4711;
constexpr std::size_t kNever = std::numeric_limits<std::size_t>::max();
constexpr std::size_t kMostCalls = 3000;  // an upper bound for the calls of a flow

constexpr wchar_t kNotify[] =
    LR"({"powerEventType":7,"eventAction":2,"commandParams":{"packageFamilyName":"f",)"
    LR"("appServiceName":"s","payload":{},"delayDeliverySec":"5"}})";
constexpr wchar_t kWatch[] =
    LR"({"catalogEvent":7,"catalogAction":2,"packageFamilyName":"App_r4x2m8kq7tn3b",)"
    LR"("catalogActionParams":{"packageFamilyName":"f","appServiceName":"s","payload":{}}})";

class FaultWalkTest : public SimulatedServiceTest {
 protected:
  FaultWalkTest() { InstallApp(L"7C3B9E40.Qubo"); }

  // The virtual clock keeps the wake events of parked workers and its timers for its lifetime, so
  // flows with workers add a few handles. A leak at every fault would add far more.
  enum class Workers { None, Some };

  struct Flow {
    std::function<void()> prepare = [] {};
    std::function<void()> act;     // also waits for the workers it starts
    std::function<bool()> worked;  // whether the flow did its work
  };

  // After each fault, checks impersonation, workers and the other service's value. Then retries if
  // the flow did not work.
  void Walk(const Flow& flow, Workers workers = Workers::None) {
    StartFrameworkThread();
    storePath = store.FilePath();
    host.Execute(20, L"{}");  // creates the folder
    // The first runs, even one that throws, cause Windows's per-process allocations.
    for (const std::size_t index : {kNever, std::size_t{0}}) {
      Begin(flow);
      RunOnce(flow, index);
      RunOnce(flow, kNever);
      ASSERT_TRUE(flow.worked()) << "the flow itself does not work";
      CheckWhatIsLeft();
    }
    const std::uintptr_t handles = HandleGauge();
    std::size_t index = 0;
    for (; !HasFailure(); ++index) {
      ASSERT_LT(index, kMostCalls);
      Begin(flow);
      const std::string call = RunOnce(flow, index);
      if (call.empty()) break;
      SCOPED_TRACE(testing::Message() << "call " << index << ", " << call);
      CheckWhatIsLeft();
      if (flow.worked()) continue;
      RunOnce(flow, kNever);
      EXPECT_TRUE(flow.worked()) << "the next try fails";
      CheckWhatIsLeft();
    }
    const std::size_t spare = workers == Workers::None ? 1 : 4 + index / 10;
    EXPECT_LE(HandleGauge(), handles + spare * 4);  // handle values are four apart
    std::printf("%zu calls refused\n", index);
  }

  void Expect(const Codes& documented, std::uint32_t id, const std::wstring& request) {
    const Reply reply = host.Execute(id, request.c_str());
    EXPECT_TRUE(documented.contains(reply.result)) << std::hex << reply.result;
  }

  std::ptrdiff_t Told() const { return std::ranges::count(Sent(), L"f/s {}"); }

  static bool Stored(const char* key, const std::wstring& text) {
    const auto document = DocumentOf(storePath);
    const auto own = document.Find("OrvaneServiceDocument");
    if (!own) return false;
    const auto members = own->AsDocument().value();
    const auto value = members.Find(key);
    return value && value->AsWideText().value_or(L"").find(text) != std::wstring::npos;
  }

  static inline std::wstring storePath;

 private:
  void Begin(const Flow& flow) {
    Tessel::Server::Storage::BsonDocument document;
    document.Set("sleep_state", Tessel::Server::Storage::BsonElement::Int32(kKept));
    WriteBytes(storePath, StoreFile(document.Encoded()));
    machine.clock.SetUtcFileTime(kPowerOn);
    flow.prepare();
  }

  std::string RunOnce(const Flow& flow, std::size_t index) {
    if (index != kNever) machine.faults.FailCall(index);
    flow.act();
    const std::vector<std::string> calls = machine.faults.Calls();
    std::string failed = index < calls.size() ? calls[index] : std::string();
    machine.faults.Clear();
    if (host.service == nullptr) host.Renew();
    log.Clear();
    return failed;
  }

  void CheckWhatIsLeft() {
    machine.clock.Settle();
    EXPECT_FALSE(machine.users.AnyoneActs()) << "a user is still impersonated";
    EXPECT_EQ(machine.clock.Workers(), 0U);
    EXPECT_EQ(machine.firmware.LiveObjects(), 0);
    // Another service's value, before the module repairs the file and afterward.
    EXPECT_EQ(DocumentOf(storePath).Find("sleep_state").value().AsInt32(), kKept);
    EXPECT_EQ(host.Execute(21, L"{}").response,
              L"{\"result\":{\"sleepState\":" + std::to_wstring(kKept) + L"}}");
  }
};

TEST_F(FaultWalkTest, Subscribe) {
  Walk({.act = [&] { Expect({0}, 9, kNotify); },
        .worked = [] { return Stored("PowerEventSubscriptions", L"appServiceName"); }});
}

TEST_F(FaultWalkTest, Deliver) {
  std::ptrdiff_t before = 0;
  const auto deliver = [&] {
    before = Told();
    host.service->power_event_task(kResumed);
    machine.clock.Advance(10s);
  };
  Walk({.prepare = [&] { host.Execute(9, kNotify); },
        .act = deliver,
        .worked = [&] { return Told() == before + 1; }},
       Workers::Some);
}

TEST_F(FaultWalkTest, Launch) {
  const ProtectedFolder folder;
  const std::wstring path = folder.Hold(L"pinned.exe");
  const std::wstring request = LR"({"powerEventType":7,"eventAction":1,"commandParams":{"path":")" +
                               Escaped(path) + LR"("}})";
  std::size_t before = 0;
  const auto launch = [&] {
    before = Started().size();
    host.service->power_event_task(kResumed);
    machine.clock.Advance(10s);
  };
  const auto launched = [&] {
    return Started().size() == before + 1 &&
           machine.processes.Started().back().start.application == path;
  };
  Walk({.prepare = [&] { host.Execute(9, request.c_str()); }, .act = launch, .worked = launched},
       Workers::Some);
}

// The firmware already holds the born-on date. Recording it has its own test.
TEST_F(FaultWalkTest, StartUp) {
  const auto live = [&] {
    host.Renew();
    if (host.service == nullptr) return;
    host.service->Start();
    machine.clock.Advance(4h);
    host.End();
    machine.clock.Advance(2h);
  };
  const auto told = [] {
    const auto sent = DocumentOf(storePath).Find("oobe_complete_event_sent_to_quboapp");
    return sent && sent->AsBoolean() == true;
  };
  Walk({.act = live, .worked = told}, Workers::Some);
}

TEST_F(FaultWalkTest, Resume) {
  const Codes codes = {0, 0x20000002, 0x20000008, 0x20000009, 0x2000000A};
  std::size_t before = 0;
  const auto resume = [&] {
    before = Started().size();
    Expect(codes, 10, L"{}");
    Expect(codes, 11, L"{}");
    Expect(codes, 17, L"{\"parameter\":\"p\"}");
  };
  Walk({.act = resume, .worked = [&] { return Started().size() == before + 2; }});
}

TEST_F(FaultWalkTest, BornOnDate) {
  Walk({.prepare = [&] { machine.firmware.SetWarrantyBlock(std::string(128, '\0')); },
        .act = [&] { Expect({0}, 18, L"{}"); },
        .worked = [&] { return machine.firmware.BornOnDate() == "20240715"; }});
}

TEST_F(FaultWalkTest, PackageEvent) {
  const Codes codes = {0, 0x20000002, 0x20000004, 0x20000005, 0x20000008, 0x20000009, 0x80070005};
  std::ptrdiff_t before = 0;
  const auto uninstall = [&] {
    before = Told();
    InstallApp(L"App");
    host.service->OnSessionChange(5);  // activates a subscription that an earlier try stored
    Expect(codes, 7, kWatch);
    machine.clock.Settle();
    try {
      machine.packages.Uninstall(L"App_r4x2m8kq7tn3b", L"ann", 0s);
    } catch (const std::system_error&) {  // NOLINT(bugprone-empty-catch): no thread could start
    }
    machine.clock.Advance(60s);
    host.service->OnSessionChange(6);
    machine.clock.Advance(60s);
  };
  Walk({.act = uninstall, .worked = [&] { return Told() == before + 1; }}, Workers::Some);
}

}  // namespace
}  // namespace Vx::Tests
