// A day's commands, deliveries and services must not make the module leak. See scripts/soak.

#include "module/module_test.h"
#include "support/test.h"

namespace Vx::Tests {
namespace {

// Bytes that the steps may leave in the heap. Most runs leave nothing. Some leave 480-byte blocks
// that the system keeps for threads. Commands start no threads, so a leak of as few as 14 bytes in
// one command is detected.
constexpr std::size_t kStepsPerByte = 100;
constexpr std::size_t kOneBlock = 512;
constexpr std::size_t kBlocksOfWorkers = 4 * kOneBlock;

constexpr std::size_t kCommitAllowance = std::size_t{256} * 1024;  // for one more heap commit

// The number of deliveries between two waits for their workers, which limits how many threads run
// at once. A host makes this many between two events.
constexpr std::size_t kDeliveriesAtOnce = 48;

struct Figures {
  std::uintptr_t handles = 0;
  std::size_t threads = 0;
  MemoryInUse memory;
};

class SoakTest : public ModuleTest {
 protected:
  SoakTest() {
    StartFrameworkThread();
    quiet = ThreadCount();
  }

  // First waits for handles and threads to return to `before`, because short-lived system threads
  // add to both.
  static Figures Measure(const char* when, const Figures& before) {
    static_cast<void>(ThreadsEnd(before.threads));
    const std::uintptr_t handles = RestingHandleGauge(before.handles + kMutexEventsGauge);
    const Figures figures{handles, ThreadCount(), MeasureMemory()};
    std::printf("%-22s highest handle 0x%zx, %zu threads, %zu KiB committed, %zu bytes in blocks\n",
                when, static_cast<std::size_t>(figures.handles), figures.threads,
                figures.memory.committed / 1024, figures.memory.heap);
    static_cast<void>(std::fflush(stdout));
    return figures;
  }

  static void ExpectFlat(const Figures& before, const Figures& after, std::size_t allowance) {
    EXPECT_LE(after.handles, before.handles + kMutexEventsGauge);
    EXPECT_LE(after.threads, before.threads);
    if (!MemoryIsMeasurable()) return;
    EXPECT_LE(after.memory.heap, before.memory.heap + allowance + steps / kStepsPerByte);
    EXPECT_LE(after.memory.committed, before.memory.committed + kCommitAllowance);
  }

  // Runs as many threads at once as the deliveries ever will. The system keeps a block for each
  // thread of the highest count so far, which could otherwise come after the warm-up.
  static void ReachTheMostThreads() {
    const Platform::UniqueHandle all(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    std::vector<std::jthread> threads(kDeliveriesAtOnce + 2 * kSystemThreads);
    for (std::jthread& thread : threads) {
      thread = std::jthread([&all] { WaitForSingleObject(all.get(), INFINITE); });
    }
    SetEvent(all.get());
  }

  void Deliver(std::size_t deliveries) {
    for (std::size_t done = 0; done < deliveries; done += std::size(kSubscriptions)) {
      service.Slots()->power_event_task(7);
      if (done % kDeliveriesAtOnce != 0) continue;
      ASSERT_TRUE(ThreadsEnd(quiet + kSystemThreads));
    }
    ASSERT_TRUE(ThreadsEnd(quiet));  // a worker that is still ending would count as growth
  }

  void Command(std::size_t commands) {
    static constexpr struct {
      std::uint32_t id = 0;
      const wchar_t* request = nullptr;
      std::uint32_t code = 0;
    } kCommands[] = {
        {22, L"{}"},
        {20, L"{}"},
        {21, L"{}"},
        {12, L""},
        {13, LR"({"launched":true})"},
        {13, LR"({"launched":false})"},
        {3, LR"({"keyName":"qubo_wakeup_for_smode_skip"})"},
        {5, LR"({"keyName":"qubo_wakeup_for_smode_skip"})"},
        {14, LR"({"zephraEventType":9,"n":1})"},
        {15, LR"({"zephraEventType":9,"n":1})"},
        {6, LR"({"packageFamilyName":"f"})"},
        {13, L"{}", 0x20000002},
        {1, L"{}", 0x20000001},
        {22, L"{", 0x20000003},
    };
    for (std::size_t done = 0; done < commands; ++done) {
      const auto& command = kCommands[done % std::size(kCommands)];
      ASSERT_EQ(Execute(command.id, command.request).code, command.code) << command.id;
      module.NewService();  // and ends it again, which frees it
    }
  }

  // One delivery of each kind per event: untrusted programs and a missing app.
  static constexpr const wchar_t* kSubscriptions[] = {
      LR"({"powerEventType":7,"eventAction":1,"commandParams":{"path":"C:\\windows\\none.exe"}})",
      LR"({"powerEventType":7,"eventAction":1,"commandParams":{"path":"C:\\windows\\cmd.exe"}})",
      (LR"({"powerEventType":7,"eventAction":2,"commandParams":)"
       LR"({"packageFamilyName":"f","appServiceName":"s","payload":{}}})")};

  static inline const std::size_t steps = Setting("VX_STEPS", 600);
  std::size_t quiet = 0;
};

TEST_F(SoakTest, DeliveriesAndCommandsLeaveNothing) {
  for (const wchar_t* subscription : kSubscriptions) Execute(9, subscription);
  ReachTheMostThreads();
  Deliver(300);
  Command(300);
  const Figures warm =
      Measure("warm", {.handles = UINTPTR_MAX - kMutexEventsGauge, .threads = quiet, .memory = {}});
  Deliver(steps);
  const Figures delivered = Measure("after the deliveries", warm);
  ExpectFlat(warm, delivered, kBlocksOfWorkers);
  Command(steps);
  ExpectFlat(delivered, Measure("after the commands", delivered), kOneBlock);
}

// Several hosts run services concurrently, each with several callers. The callers end before their
// service, as the host guarantees. The service's own threads may outlive it.
TEST_F(SoakTest, ServicesComeAndGoWithEverythingInFlight) {
  constexpr int kHosts = 3;
  constexpr int kCallers = 2;
  const auto live = [this](int turn) {
    auto session = module.NewService();
    session.Slots()->Start();
    std::vector<std::jthread> callers;
    callers.reserve(kCallers);
    for (int caller = 0; caller < kCallers; ++caller) {
      callers.emplace_back([&session, odd = (turn + caller) % 2 != 0] {
        const auto use = [&](std::uint32_t id, const wchar_t* request) {
          const Hosting::CommandResult answer = session.Execute(id, request, L"soak");
          EXPECT_TRUE(answer.code == 0 && answer.text) << id;
        };
        use(22, L"{}");
        use(9, L"{\"powerEventType\":7}");
        session.Slots()->power_event_task(odd ? 18 : 7);
        use(19, L"{\"powerEventType\":7}");
        session.Slots()->OnSessionChange(odd ? 6 : 5);
        use(20, L"{}");
      });
    }
  };
  const auto round = [&] {
    std::vector<std::jthread> hosts;
    hosts.reserve(kHosts);
    for (int host = 0; host < kHosts; ++host) {
      hosts.emplace_back([&live] {
        for (std::size_t turn = 0; turn < steps / 50; ++turn) live(static_cast<int>(turn));
      });
    }
  };
  round();  // lets the system make its permanent allocations
  ASSERT_TRUE(ThreadsEnd(quiet + kSystemThreads));
  const std::uintptr_t before = HandleGauge();
  round();
  ASSERT_TRUE(ThreadsEnd(quiet + kSystemThreads));
  // Room for short-lived system threads. A leak of one handle per service would exceed it.
  constexpr std::uintptr_t kSystemsOwn = 16;
  EXPECT_LE(RestingHandleGauge(before + kSystemsOwn), before + kSystemsOwn);
}

DWORD NextThreadSlot() {
  const DWORD slot = TlsAlloc();
  TlsFree(slot);
  return slot;
}

// A thread still running in an unloaded module would crash this process.
TEST_F(SoakTest, TheModuleStaysUntilItsLastThreadHasGoneAndLeavesNoThreadSlot) {
  constexpr DWORD kLoads = 5;
  const auto use = [](Hosting::LoadedModule loaded) {
    for (int turn = 0; turn < 5; ++turn) loaded.NewService().Slots()->Start();
  };
  const auto expectGone = [] {
    ASSERT_TRUE(Eventually([] { return GetModuleHandleW(L"OrvaneService.dll") == nullptr; }, 30s));
  };
  service.End();
  use(std::move(module));
  expectGone();
  const DWORD before = NextThreadSlot();
  for (DWORD i = 0; i < kLoads; ++i) {
    use(Hosting::LoadedModule(TestModulePath()));
    expectGone();
  }
  // The thread library linked into each module keeps one slot per load. A leak would add another.
  EXPECT_LE(NextThreadSlot(), before + kLoads);
}

}  // namespace
}  // namespace Vx::Tests
