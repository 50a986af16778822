
#include "events/subscription_delivery.h"
#include "platform/thread.h"
#include "support/stand_in_logon.h"
#include "support/test.h"
#include "support/winrt_fakes.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

// Fills the calling thread's unused stack with a pattern that later writes replace.
class PaintedStack {
 public:
  // From here on, the caller's stack frames must not shrink.
  __attribute__((noinline)) PaintedStack() {
    ULONG_PTR low = 0;
    GetCurrentThreadStackLimits(&low, &top);
    bottom = low + kGuard;
    const auto here = reinterpret_cast<ULONG_PTR>(__builtin_frame_address(0));
    // Downwards, because Windows commits a stack page by page.
    for (ULONG_PTR at = here - kOwnFrames; at > bottom; --at) At(at) = kPaint;
  }

  std::size_t Reserved() const { return top - bottom + kGuard; }

  std::size_t Used() const {
    ULONG_PTR at = bottom + 1;
    while (at < top && At(at) == kPaint) ++at;
    return top - at;
  }

 private:
  static constexpr ULONG_PTR kGuard = ULONG_PTR{16} << 10;  // reserved by Windows at the end
  static constexpr ULONG_PTR kOwnFrames = 1024;
  static constexpr unsigned char kPaint = 0xC5;

  static volatile unsigned char& At(ULONG_PTR address) {
    return *reinterpret_cast<volatile unsigned char*>(address);  // NOLINT(*-no-int-to-ptr)
  }

  ULONG_PTR bottom = 0;
  ULONG_PTR top = 0;
};

struct StackUse {
  std::size_t reserved = 0;  // both in bytes
  std::size_t used = 0;
};

// The real threads, but the stack of the next worker is measured.
class MeasuredThreads final : public Platform::Threads {
 public:
  explicit MeasuredThreads(Platform::Threads& others) : threads(others) {}

  Platform::Result<Platform::UniqueHandle> Start(std::function<void()> body) override {
    return threads.Start([use = use, body = std::move(body)]() mutable {
      const PaintedStack stack;
      body();
      use->set_value({stack.Reserved(), stack.Used()});
    });
  }

  // Shared, because the worker may still be in set_value after the test has read the value.
  std::shared_ptr<std::promise<StackUse>> use = std::make_shared<std::promise<StackUse>>();

 private:
  Platform::Threads& threads;
};

class WorkerStackTest : public Tests::RuntimeTest {
 protected:
  static StackUse Deliver(const std::wstring& request) {
    MeasuredThreads threads(*Platform::CurrentMachine().threads);
    auto use = threads.use->get_future();
    const Platform::MachineScope scope(
        [&](Platform::Machine& machine) { machine.threads = &threads; });
    PowerEventManager::handle_event(request, nullptr, 7);
    return use.wait_for(60s) == std::future_status::ready ? use.get() : StackUse{};
  }

  Tests::TempFolder userFolder;
  Tests::ProtectedFolder folder;
  Tests::StandInLogon logon{userFolder.Path().wstring()};
  Tests::LogCapture log;
};

TEST_F(WorkerStackTest, LeavesFourFifthsFreeWhereARealDeliveryIsDeepest) {
  const std::wstring path = folder.Hold(L"pinned.exe");
  const struct {
    const char* name;
    std::wstring request;
    const wchar_t* line;
  } cases[] = {
      {"signature check and process creation",
       LR"({"powerEventType":7,"eventAction":1,"commandParams":{"path":")" + Tests::Escaped(path) +
           LR"("}})",
       L"info|LaunchCommand::Execute returned with result 1"},
      {"exchange with an app service",
       LR"({"powerEventType":7,"eventAction":2,"commandParams":{"packageFamilyName":"f",)"
       LR"("appServiceName":"s","payload":{}}})",
       L"info|PowerEventManager::handle_event Executed"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const StackUse use = Deliver(c.request);
    EXPECT_THAT(log.Lines(), Contains(StartsWith(c.line)));
    std::printf("%s: %zu bytes\n", c.name, use.used);
    EXPECT_LE(use.used * 5, Platform::kWorkerStack);
    // Every delivery uses more than this. A smaller value means that painting the stack failed.
    EXPECT_GE(use.used, std::size_t{4} << 10);
    // The emulator reserves at least 1 MiB.
    EXPECT_EQ(use.reserved, std::max(Platform::kWorkerStack, std::size_t{1} << 20));
  }
  EXPECT_TRUE(Tests::WaitForProbe(path + L".out"));
  EXPECT_THAT(messages, testing::ElementsAre(L"{}")) << "the app did not receive it in time";
}

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane
