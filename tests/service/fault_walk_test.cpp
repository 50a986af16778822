// Each flow with its first, second, ... call to Windows refused, until none is left to refuse.

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <limits>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "events/fake_package_catalog.h"
#include "platform/machine.h"
#include "platform/processes.h"
#include "platform/registry.h"
#include "platform/system_services.h"
#include "service/service_fixture.h"
#include "simulator/fault_injection.h"
#include "simulator/simulated_firmware.h"
#include "simulator/virtual_clock.h"
#include "storage/store_file.h"
#include "support/fake_app_services.h"
#include "support/fake_console.h"
#include "support/handle_gauge.h"
#include "support/test_pki.h"

namespace Vx::Tests {
namespace {

using namespace std::chrono_literals;  // NOLINT(google-build-using-namespace)
using Codes = std::set<std::uint32_t>;

constexpr std::uint64_t kPowerOn = 133'655'000'000'000'000;  // 2024-07-15 as a FILETIME
constexpr std::uint32_t kResumed = 7;
constexpr std::int32_t kKept = 4711;
constexpr std::size_t kNever = std::numeric_limits<std::size_t>::max();
constexpr std::size_t kMostCalls = 3000;  // more than any flow makes: the walk does not end

constexpr std::uintptr_t kHandleStep = 4;  // between one handle value and the next

constexpr wchar_t kFamily[] = L"7C3B9E40.Qubo_r4x2m8kq7tn3b";
constexpr wchar_t kFullName[] = L"7C3B9E40.Qubo_2.0.0.0_x64__r4x2m8kq7tn3b";
constexpr wchar_t kNotify[] =
    LR"({"powerEventType":7,"eventAction":2,"commandParams":{"packageFamilyName":"f",)"
    LR"("appServiceName":"s","payload":{},"delayDeliverySec":"5"}})";
constexpr wchar_t kWatch[] =
    LR"({"catalogEvent":7,"catalogAction":2,"packageFamilyName":"App_abc",)"
    LR"("catalogActionParams":{"packageFamilyName":"f","appServiceName":"s","payload":{}}})";

// One logon process, and programs that count as started when they are asked for.
class LogonProcesses final : public Platform::Processes {
 public:
  Platform::Result<std::uint32_t> Start(Platform::RawHandle,
                                        const Platform::ProcessStart& start) override {
    started.push_back(start.application);
    return std::uint32_t{42};
  }
  std::vector<std::uint32_t> Ids(std::size_t) const override { return {1}; }
  std::optional<std::wstring> ImagePath(std::uint32_t) const override {
    return L"C:\\windows\\system32\\winlogon.exe";
  }
  std::optional<std::uint32_t> Session(std::uint32_t) const override { return 1; }
  Platform::Result<Platform::UniqueHandle> PrimaryToken(std::uint32_t) const override {
    return Platform::WindowsMachine().kernelObjects->MakeManualEvent({});
  }

  std::vector<std::wstring> started;
};

class EmptyRegistry final : public Platform::Registry {
 public:
  Platform::Result<Platform::RegistryValue> Read(const std::wstring&,
                                                 const std::wstring&) const override {
    return Platform::Result<Platform::RegistryValue>::Failure(2);
  }
  bool Exists(const std::wstring&, const std::wstring&) const override { return false; }
};

class OobeIsOver final : public Platform::Oobe {
 public:
  State Query() const override { return {true, true}; }
};

class FaultWalkTest : public testing::Test {
 protected:
  FaultWalkTest() {
    console.installed[kFamily] = kFullName;
    console.staged = console.registered = {kFullName};
    apps.status = 0;
    catalog.SetPackages(L"App_abc", 1);
  }
  ~FaultWalkTest() override {
    host.End();
    clock.Advance(2h);  // delayed launches are not ended by the service
  }

  // The virtual clock keeps the wake events of parked workers and its own handles of timers till it
  // goes, so flows with workers add a few over the walk; one lost at every fault would be far more.
  enum class Workers { None, Some };

  struct Flow {
    std::function<void()> prepare = [] {};
    std::function<void()> act;     // also waits for the workers it starts
    std::function<bool()> worked;  // what the flow is for has happened
  };

  // Walks the flow. After each fault: nobody impersonated, no worker, the other service's value
  // still there; and the flow works at the next try.
  void Walk(const Flow& flow, Workers workers = Workers::None) {
    // What the system keeps for a process comes first, also for one that has thrown.
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
      RunOnce(flow, kNever);
      EXPECT_TRUE(flow.worked()) << "the next try fails";
      CheckWhatIsLeft();
    }
    const std::size_t spare = workers == Workers::None ? 1 : 4 + index / 10;
    EXPECT_LE(HandleGauge(), handles + spare * kHandleStep);
    std::printf("%zu calls refused\n", index);
  }

  void Expect(const Codes& documented, std::uint32_t id, const std::wstring& request) {
    const Reply reply = host.Execute(id, request.c_str());
    EXPECT_TRUE(documented.contains(reply.result)) << std::hex << reply.result;
  }

  // How often the subscribed message was sent.
  std::ptrdiff_t Sent() const {
    const auto all = apps.Sent();
    return std::count(all.begin(), all.end(), L"f/s {}");
  }

  static bool Stored(const char* key, const std::wstring& text) {
    const auto document = DocumentOf(storePath);
    const auto own = document.Find("OrvaneServiceDocument");
    if (!own) return false;
    const auto members = own->AsDocument().value();
    const auto value = members.Find(key);
    return value && value->AsWideText().value_or(L"").find(text) != std::wstring::npos;
  }

  Simulator::VirtualClock clock;
  Simulator::SimulatedFirmware firmware;
  Simulator::FaultInjection faults;
  EmptyRegistry registry;
  OobeIsOver oobe;
  FakeConsole console;
  FakePackageCatalog catalog;
  LogonProcesses processes;
  FakeAppServices apps;
  Platform::MachineScope scope{[this](Platform::Machine& machine) {
    console.Install(machine);
    machine.appServices = &apps;
    machine.clock = &clock;
    machine.com = &firmware;
    machine.oobe = &oobe;
    machine.processes = &processes;
    machine.registry = &registry;
    if (testing::UnitTest::GetInstance()->current_test_info()->name() ==
        std::string("PackageEvent")) {
      machine.packages = &catalog;
    }
    faults.Install(machine);
  }};
  ServiceFixture host;
  static std::wstring storePath;

 private:
  // A fresh store with the value of another service, and a fresh service.
  void Begin(const Flow& flow) {
    faults.Clear();
    storePath = host.StorePath();
    Tessel::Server::Storage::BsonDocument document;
    document.AppendInt32("sleep_state", kKept);
    host.Execute(20, L"{}");  // makes the folder
    WriteBytes(storePath, StoreFile(document.Encoded()));
    clock.SetUtcFileTime(kPowerOn);
    processes.started.clear();
    console.started.clear();
    flow.prepare();
  }

  std::string RunOnce(const Flow& flow, std::size_t index) {
    if (index != kNever) faults.FailCall(index);
    flow.act();
    const std::vector<std::string> calls = faults.Calls();
    std::string failed = index < calls.size() ? calls[index] : std::string();
    faults.Clear();
    if (host.service == nullptr) host.Renew();
    host.log.Clear();
    return failed;
  }

  void CheckWhatIsLeft() {
    clock.Settle();
    EXPECT_FALSE(console.acting) << "somebody is still impersonated";
    EXPECT_EQ(clock.Workers(), 0U);
    EXPECT_EQ(firmware.LiveObjects(), 0);
    const auto document = DocumentOf(storePath);
    const auto kept = document.Find("sleep_state");
    EXPECT_TRUE(kept && kept->AsInt32() == kKept) << "another service's value is lost";
    EXPECT_EQ(host.Execute(21, L"{}").response,
              L"{\"result\":{\"sleepState\":" + std::to_wstring(kKept) + L"}}");
  }
};

std::wstring FaultWalkTest::storePath;

TEST_F(FaultWalkTest, Subscribe) {
  Walk({.act = [&] { Expect({0}, 9, kNotify); },
        .worked = [] { return Stored("PowerEventSubscriptions", L"appServiceName"); }});
}

TEST_F(FaultWalkTest, Persist) {
  Walk({.act =
            [&] {
              Expect({0, 0x20000002, 0x2000000A}, 13, L"{\"launched\":true}");
            },
        .worked =
            [&] {
              return host.Execute(12, L"{}").response == L"{\"result\":{\"launched\":true}}";
            }});
}

TEST_F(FaultWalkTest, Deliver) {
  std::ptrdiff_t sent = 0;
  Walk({.prepare = [&] { host.Execute(9, kNotify); },
        .act =
            [&] {
              sent = Sent();
              host.service->power_event_task(kResumed);
              clock.Advance(10s);
            },
        .worked = [&] { return Sent() == sent + 1; }},
       Workers::Some);
}

TEST_F(FaultWalkTest, Launch) {
  const ProtectedFolder folder;
  const std::wstring path = folder.Hold(L"pinned.exe");
  std::wstring escaped;
  for (const wchar_t c : path) escaped.append(c == L'\\' ? 2 : 1, c);
  const std::wstring request =
      LR"({"powerEventType":7,"eventAction":1,"commandParams":{"path":")" + escaped + LR"("}})";
  Walk({.prepare = [&] { host.Execute(9, request.c_str()); },
        .act =
            [&] {
              processes.started.clear();
              host.service->power_event_task(kResumed);
              clock.Advance(10s);
            },
        .worked = [&] { return processes.started == std::vector<std::wstring>{path}; }},
       Workers::Some);
}

// The born-on date is in the firmware already: recording it is a walk of its own.
TEST_F(FaultWalkTest, StartUp) {
  Walk({.act =
            [&] {
              host.Renew();
              if (host.service == nullptr) return;
              host.service->Start();
              clock.Advance(4h);
              host.End();
              clock.Advance(2h);
            },
        .worked =
            [] {
              const auto sent = DocumentOf(storePath).Find("oobe_complete_event_sent_to_quboapp");
              return sent && sent->AsBoolean() == true;
            }},
       Workers::Some);
}

TEST_F(FaultWalkTest, Resume) {
  const Codes codes = {0, 0x20000002, 0x20000008, 0x20000009, 0x2000000A};
  Walk({.act =
            [&] {
              processes.started.clear();
              Expect(codes, 10, L"{}");
              Expect(codes, 11, L"{}");
              Expect(codes, 17, L"{\"parameter\":\"p\"}");
            },
        .worked = [&] { return processes.started.size() == 2; }});
}

TEST_F(FaultWalkTest, BornOnDate) {
  Walk({.prepare = [&] { firmware.SetWarrantyBlock(std::string(128, '\0')); },
        .act = [&] { Expect({0}, 18, L"{}"); },
        .worked = [&] { return firmware.BornOnDate() == "20240715"; }});
}

TEST_F(FaultWalkTest, PackageEvent) {
  std::ptrdiff_t sent = 0;
  Walk({.act =
            [&] {
              sent = Sent();
              catalog.SetPackages(L"App_abc", 1);
              host.service->OnSessionChange(5);  // watches for what an earlier try has stored
              Expect({0, 0x20000002, 0x20000004, 0x20000005, 0x20000008, 0x20000009, 0x80070005}, 7,
                     kWatch);
              clock.Settle();
              catalog.SetPackages(L"App_abc", 0);
              catalog.Notify(FakeUninstall(L"App_abc"));
              clock.Advance(60s);
              host.service->OnSessionChange(6);
              clock.Advance(60s);
            },
        .worked = [&] { return Sent() == sent + 1; }},
       Workers::Some);
}

}  // namespace
}  // namespace Vx::Tests
