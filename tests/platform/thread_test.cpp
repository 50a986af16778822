#include "platform/thread.h"
#include "support/test.h"

#include <cerrno>

#include "platform/runtime/fail_fast.h"
#include "simulator/virtual_clock.h"
#include "support/memory_shortage.h"
#include "support/silent_pipe.h"

namespace Vx::Platform {
namespace {

class ThreadTest : public testing::Test {
 protected:
  Simulator::VirtualClock clock;
  MachineScope scope{[this](Machine& machine) { machine.clock = &clock; }};
};

TEST_F(ThreadTest, IsCountedByTheClockUntilWhatItOwnsIsFreed) {
  std::vector<std::size_t> workers;
  const auto note = [&](void*) { workers.push_back(clock.Workers()); };
  auto freed = std::shared_ptr<void>(nullptr, note);
  Thread([&note, owned = std::move(freed)] { note(nullptr); }).Join();
  EXPECT_THAT(workers, ElementsAre(1U, 1U));
  EXPECT_EQ(clock.Workers(), 0U);
}

TEST(HeldUpThreadTest, IsAwaitedForATimeAndItsCallOfWindowsCancelled) {
  const Tests::SilentPipe pipe;
  DWORD error = 0;
  Thread reader([&] {
    const UniqueHandle client = AdoptFile(
        CreateFileW(pipe.Path().c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    char byte = 0;
    DWORD got = 0;
    error = ReadFile(client.get(), &byte, 1, &got, nullptr) != FALSE ? 0 : GetLastError();
  });
  while (!reader.JoinFor(std::chrono::milliseconds(20))) reader.CancelIo();
  EXPECT_EQ(error, static_cast<DWORD>(ERROR_OPERATION_ABORTED));
}

TEST_F(ThreadTest, NeedsNoMemoryForItsFirstException) {
  struct Note {
    ~Note() { pending = std::uncaught_exceptions(); }
    int& pending;
  };
  int unwinding = -1;
  int caught = -1;
  Thread([&] {
    const Tests::MemoryShortage shortage(Tests::Shortage::Lasting, 0);
    try {
      const Note note{unwinding};
      throw 0;
    } catch (int) {
      caught = std::uncaught_exceptions();
    }
  }).Join();
  EXPECT_EQ(unwinding, 1);
  EXPECT_EQ(caught, 0);
}

TEST_F(ThreadTest, RefusesToJoinOrDetachWhatIsNotJoinable) {
  Thread thread([] {});
  thread.Join();
  EXPECT_THROW(thread.Join(), std::system_error);
  EXPECT_THROW(thread.Detach(), std::system_error);
}

class NoThreads final : public Threads {
 public:
  explicit NoThreads(bool outOfMemory) : throws(outOfMemory) {}
  Result<UniqueHandle> Start(std::function<void()>) override {
    if (throws) throw std::bad_alloc();
    return Failure(EAGAIN);
  }

 private:
  const bool throws;
};

// Exits the process with 0. If a worker were still counted, leaving the scope would be fatal.
[[noreturn]] void LeaveAfterAFailedStart(bool outOfMemory) {
  bool threw = false;
  {
    NoThreads none(outOfMemory);
    const MachineScope scope([&](Machine& machine) { machine.threads = &none; });
    try {
      StartDetached([] {});
    } catch (const std::exception&) {
      threw = true;
    }
  }
  ExitProcess(threw ? 0 : 1);
}

TEST(FailedStartTest, LeavesNoWorkerThatAMachineWaitsFor) {
  for (const bool outOfMemory : {false, true}) {
    EXPECT_EXIT(LeaveAfterAFailedStart(outOfMemory), testing::ExitedWithCode(0), "");
  }
}

// STATUS_FAIL_FAST_EXCEPTION, which creates an error report. The exit code of abort is 3.
constexpr int kFailFast = static_cast<int>(0xC0000602);

TEST(JoinableThreadTest, FailsFastWhenItIsDestroyed) {
  EXPECT_EXIT({ const Thread thread([] {}); }, testing::ExitedWithCode(kFailFast), "");
}

TEST(FailFastTest, IsWhatAnUncontainedExceptionEndsIn) {
  EXPECT_EXIT(
      {
        FailFastOnTerminate();
        std::terminate();
      },
      testing::ExitedWithCode(kFailFast), "");
}

// Fills `size` bytes from `first` in a way that the compiler cannot analyze.
void Fill(volatile char* first, std::size_t size) {
  for (std::size_t i = 0; i < size; ++i) first[i] = 'x';
}

__attribute__((noinline)) void Overrun() {
  void (*volatile fill)(volatile char*, std::size_t) = &Fill;
  volatile char buffer[16];
  fill(buffer, 64);
}

TEST(StackGuardTest, FailsFastWhereAFunctionWritesBeyondItsBuffer) {
  constexpr int kStackBufferOverrun = static_cast<int>(0xC0000409);
  EXPECT_EXIT(Overrun(), testing::ExitedWithCode(kStackBufferOverrun), "");
}

}  // namespace
}  // namespace Vx::Platform
