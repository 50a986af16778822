#include "platform/thread.h"

#include <gmock/gmock.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <vector>

#include <windows.h>

#include "platform/clock.h"
#include "platform/machine.h"
#include "simulator/fault_injection.h"
#include "support/handle_gauge.h"
#include "support/probe.h"

namespace Vx::Platform {
namespace {

using testing::ElementsAre;

constexpr DWORD kLongestWait = 20'000;  // milliseconds

// The real clock, but it writes down what it is told of workers.
class ListeningClock : public Clock {
 public:
  std::uint64_t TickCount() const override { return real.TickCount(); }
  std::uint64_t UtcFileTime() const override { return real.UtcFileTime(); }
  void Sleep(Duration length) override { real.Sleep(length); }
  WaitResult Wait(RawHandle handle, std::optional<Duration> length) override {
    return real.Wait(handle, length);
  }
  Result<UniqueHandle> MakeTimer() override { return real.MakeTimer(); }
  ErrorCode SetTimer(RawHandle timer, Duration due) override { return real.SetTimer(timer, due); }
  void WorkerStarting() override { Note("starting"); }
  void WorkerStarted() override { Note("started"); }
  void WorkerNotStarted() override { Note("not started"); }
  void WorkerEnded() override { Note("ended"); }

  void Note(const char* what) {
    const std::lock_guard guard(mutex);
    notes.emplace_back(what);
  }
  std::vector<std::string> Notes() {
    const std::lock_guard guard(mutex);
    return notes;
  }

 private:
  Clock& real = *WindowsMachine().clock;
  std::mutex mutex;
  std::vector<std::string> notes;
};

TEST(ThreadTest, TellsTheClockOfAWorkerUntilWhatItOwnsIsFreed) {
  ListeningClock clock;
  const MachineScope scope([&](Machine& machine) { machine.clock = &clock; });
  {
    auto freed = std::shared_ptr<void>(nullptr, [&](void*) { clock.Note("freed"); });
    Thread([&clock, owned = std::move(freed)] { clock.Note("body"); }).Join();
  }
  EXPECT_THAT(clock.Notes(), ElementsAre("starting", "started", "body", "freed", "ended"));
}

TEST(ThreadTest, ThrowsAndIsNotCountedWhenNoThreadCanBeMade) {
  ListeningClock clock;
  Simulator::FaultInjection faults;
  const MachineScope scope([&](Machine& machine) {
    machine.clock = &clock;
    faults.Install(machine);
  });
  faults.FailNamed("Threads.Start");
  try {
    StartDetached([&] { clock.Note("body"); });
    FAIL() << "started";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code(), std::errc::resource_unavailable_try_again);
  }
  EXPECT_THAT(clock.Notes(), ElementsAre("starting", "not started"));
}

TEST(ThreadTest, RefusesToJoinOrDetachWhatIsNotJoinable) {
  Thread thread([] {});
  thread.Join();
  EXPECT_FALSE(thread.Joinable());
  EXPECT_THROW(thread.Join(), std::system_error);
  EXPECT_THROW(thread.Detach(), std::system_error);
}

TEST(ThreadTest, DiesWhenAJoinableOneIsDestroyed) {
  EXPECT_DEATH({ const Thread thread([] {}); }, "");
}

TEST(ThreadTest, RunsEveryDetachedBodyOnceAndKeepsNoHandle) {
  constexpr int kThreads = 300;
  std::atomic<int> ran{0};
  const UniqueHandle all(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  const std::uintptr_t before = Tests::HandleGauge();
  for (int i = 0; i < kThreads; ++i) {
    StartDetached([&] {
      if (ran.fetch_add(1) + 1 == kThreads) SetEvent(all.get());
    });
  }
  EXPECT_EQ(WaitForSingleObject(all.get(), kLongestWait), WAIT_OBJECT_0);
  EXPECT_EQ(ran.load(), kThreads);
  // The last threads may still be on their way out, with a handle or two of the runtime each.
  EXPECT_LT(Tests::HandleGauge(), before + std::uintptr_t{4} * kThreads / 2);
}

using StartWaitingWorker = void(HANDLE go, HANDLE done);

// Loads the module, starts a worker in it that waits for `go`, and lets go of the module.
void UseModuleOnce(HANDLE go, HANDLE done) {
  const HMODULE module = LoadLibraryW((Tests::TestFolder() + L"\\unloaded_module.dll").c_str());
  ASSERT_NE(module, nullptr);
  auto* start = reinterpret_cast<StartWaitingWorker*>(
      reinterpret_cast<void*>(GetProcAddress(module, "StartWaitingWorker")));
  if (start != nullptr) start(go, done);
  FreeLibrary(module);
  ASSERT_NE(start, nullptr);
}

bool ModuleGoes() {
  for (int i = 0; i < 2000; ++i) {
    if (GetModuleHandleW(L"unloaded_module.dll") == nullptr) return true;
    Sleep(5);
  }
  return false;
}

TEST(ThreadTest, KeepsItsModuleLoadedUntilItHasEndedAndNoLonger) {
  const UniqueHandle go(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  const UniqueHandle done(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  UseModuleOnce(go.get(), done.get());
  EXPECT_NE(GetModuleHandleW(L"unloaded_module.dll"), nullptr);
  SetEvent(go.get());
  EXPECT_EQ(WaitForSingleObject(done.get(), kLongestWait), WAIT_OBJECT_0);
  EXPECT_TRUE(ModuleGoes());
}

TEST(ThreadTest, GivesItsThreadSlotBackWithTheModule) {
  const UniqueHandle go(CreateEventW(nullptr, TRUE, TRUE, nullptr));
  const UniqueHandle done(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  const auto nextSlot = [] {
    const DWORD slot = TlsAlloc();
    TlsFree(slot);
    return slot;
  };
  UseModuleOnce(go.get(), done.get());
  ASSERT_TRUE(ModuleGoes());
  constexpr DWORD kLoads = 5;
  const DWORD before = nextSlot();
  for (DWORD i = 0; i < kLoads; ++i) {
    UseModuleOnce(go.get(), done.get());
    ASSERT_TRUE(ModuleGoes());
  }
  // The thread library that is linked into each module keeps one slot a load; ours would be
  // another.
  EXPECT_LE(nextSlot(), before + kLoads);
}

}  // namespace
}  // namespace Vx::Platform
